#pragma once

#include <functional>
#include <memory>
#include <unordered_map>

#include <json/value.h>

namespace vulkan::zovk::app {

class ZoVkProcessorBase;
class ZoVkProcessorDataBase;
namespace module {
class ZoVkModuleBase;
class ZoVkModuleDataBase;
}  // namespace module

using ZoVkProcessorCreator = std::function<std::shared_ptr<ZoVkProcessorBase>()>;
using ZoVkModuleCreator = std::function<module::ZoVkModuleBase*(ZoVkProcessorBase*)>;
using ZoVkModuleDataCreator = std::function<module::ZoVkModuleDataBase*(const Json::Value&)>;

// Creators, filled in lazily for the running application and its switched-on modules. Never
// destroyed: a game thread may still create an instance while the process exits.
extern ZoVkProcessorCreator& gCreateProcessorFunc;
extern void (*gModuleCreateInfoFunc)(unsigned int);
extern std::unordered_map<unsigned int, ZoVkModuleCreator>& gCreateModuleMap;
extern std::unordered_map<unsigned int, ZoVkModuleDataCreator>& gCreateModuleDataMap;

// Whether the running application type shares a processor with another (none does).
bool IsSharedProcessor();
// The configuration data class of the running application; null when it has none.
ZoVkProcessorDataBase* CreateProcessorData();
// Sets the processor creator and the module-registration routine for the running application.
void InitProcessorCreateInfo();
// Registers the creators of one switched-on module id.
void InitModuleCreateInfo(unsigned int id);
void InitAntutuModuleCreateInfo(unsigned int id);
void InitStarRailModuleCreateInfo(unsigned int id);
void DummyModuleCreate(unsigned int id);

// The processor of the running application, its modules already created; empty when
// no creator is set.
std::shared_ptr<ZoVkProcessorBase> CreateVkProcessor();
module::ZoVkModuleBase* CreateProcessorVkModule(unsigned int id, ZoVkProcessorBase* processor);
module::ZoVkModuleDataBase* CreateProcessorModuleData(unsigned int id, const Json::Value& config);

void ReleaseProcessorData(ZoVkProcessorDataBase* data);
void ReleaseProcessorModuleData(module::ZoVkModuleDataBase* data);
// Runs the module's OnEnd, then deletes it.
void ReleaseProcessorVkModule(module::ZoVkModuleBase* module);

}  // namespace vulkan::zovk::app
