// The configuration document from the game service, through the configuration data of
// either application: a leading 'A' picks AnTuTu, anything else Star Rail; the rest is
// the document's text.
#include <stdlib.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "app/zovk_factory.h"
#include "settings/zovk_settings.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    static char dir[] = "/tmp/zovk-fuzz-binder-XXXXXX";
    setenv("ZOVK_BINDER_DIR", mkdtemp(dir), 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace vulkan::zovk;
    const bool antutu = size > 0 && data[0] == 'A';
    ZoVkSettings* settings = ZoVkSettings::GetInstance();
    settings->IdentifyApplication(antutu ? "com.antutu.benchmark.full:ue" : "com.miHoYo.hkrpg");
    settings->SetProcessorData(app::CreateProcessorData());
    const std::string text(reinterpret_cast<const char*>(data) + (size > 0 ? 1 : 0), size > 0 ? size - 1 : 0);
    settings->ReadFromPavune(text);
    return 0;
}
