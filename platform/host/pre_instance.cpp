// On the Khronos loader a layer cannot learn from its link what the instance will offer:
// the bottom resolver answers no pre-instance query (such as
// vkEnumerateInstanceExtensionProperties) without an instance, and the layers below answer
// a null layer name with VK_ERROR_LAYER_NOT_PRESENT. The loader's own global entry points
// know, for the whole chain: they are already loaded in the process (possibly with
// RTLD_LOCAL, hence RTLD_NOLOAD by name).
#include <dlfcn.h>

#include <vulkan/vulkan_core.h>

extern "C" PFN_vkVoidFunction ZoVkPlatformPreInstanceProcAddr(const char* pName) {
    void* loader = dlopen("libvulkan.so.1", RTLD_NOW | RTLD_NOLOAD);
    if (loader == nullptr) {
        return nullptr;
    }
    const auto getInstanceProcAddr = reinterpret_cast<PFN_vkGetInstanceProcAddr>(dlsym(loader, "vkGetInstanceProcAddr"));
    const PFN_vkVoidFunction function =
        getInstanceProcAddr != nullptr ? getInstanceProcAddr(VK_NULL_HANDLE, pName) : nullptr;
    // Only the reference taken above goes: the application keeps the loader loaded.
    dlclose(loader);
    return function;
}
