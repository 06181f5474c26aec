#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include <json/value.h>
#include <unordered_map>
#include <vector>

namespace vulkan::zovk::app {

namespace module {
class ZoVkModuleDataBase;
}

using ZoVkFunctionTest = std::function<bool(const std::string&)>;
// Module id to the names of the extension functions the module needs.
using ZoVkModuleFunctionTable = std::unordered_map<unsigned int, std::vector<std::string>>;

// What the remote configuration says about the running application: the modules
// switched on, their configuration objects, the creation-path switches, and which
// module needs which extension function.
class ZoVkProcessorDataBase {
public:
    ZoVkProcessorDataBase();
    virtual ~ZoVkProcessorDataBase();

    virtual void ParsePayloadData(const std::string&) {}
    virtual void ColloctModuleExtensionFunctions() {}
    virtual const std::vector<std::string>& GetModuleExtensionFunctions(unsigned int moduleId, bool instanceLevel);

    // Fills the object from the "configs" object of the remote configuration; true when at
    // least one module stays switched on.
    bool InitProcessorConfigData(const Json::Value& config);
    void InitModuleIdArray(unsigned long mask);
    bool InitProcessorModuleData(unsigned int id, const Json::Value& config);

    bool HasAnyModuleId() const { return !moduleIds.empty(); }
    bool HasModuleId(unsigned int id) const;
    module::ZoVkModuleDataBase* GetProcessorModuleData(unsigned int id) const;
    // Switches a module off everywhere: id list, configuration object, function lists.
    void EraseModuleId(unsigned int id);

    void CollectInstanceExtensionFunctions(const ZoVkModuleFunctionTable& table);
    void CollectDeviceExtensionFunctions(const ZoVkModuleFunctionTable& table);
    // Erase the modules that need a function for which `test` is true.
    void CheckInstanceExtensionFunctions(const ZoVkFunctionTest& test);
    void CheckDeviceExtensionFunctions(const ZoVkFunctionTest& test);
    // Erase the modules that need a function for which `test` is false.
    void InitInstanceExtensionFunctions(const ZoVkFunctionTest& test);
    void InitDeviceExtensionFunctions(const ZoVkFunctionTest& test);
    bool RemoveInstanceExtensionFunction(const std::string& name);
    bool RemoveDeviceExtensionFunction(const std::string& name);

    // The render-thread check's pattern: compiled here, once, when the configuration sets it,
    // so that instance creation only matches. An invalid or over-long one matches no thread.
    static constexpr size_t kMaxRenderThreadPattern = 128;
    void SetRenderThreadPattern(const std::string& pattern);
    const std::string& RenderThreadPattern() const { return renderThreadPattern_; }
    // Whether the thread's whole name matches.
    bool IsRenderThread(const char* threadName) const;

    ZoVkProcessorDataBase(const ZoVkProcessorDataBase&) = delete;
    ZoVkProcessorDataBase& operator=(const ZoVkProcessorDataBase&) = delete;

    std::vector<unsigned int> moduleIds;
    std::unordered_map<unsigned int, module::ZoVkModuleDataBase*> moduleData;
    std::unordered_map<std::string, std::vector<unsigned int>> instanceExtensionFunctions;
    std::unordered_map<std::string, std::vector<unsigned int>> deviceExtensionFunctions;
    bool checkRenderThread = false;
    bool useLock = false;
    unsigned long moduleMask = 0;
    bool removeExtensionFunctions = false;

private:
    struct CompiledPattern;
    std::string renderThreadPattern_;
    std::unique_ptr<const CompiledPattern> renderThreadRegex_;

    using FunctionModules = std::unordered_map<std::string, std::vector<unsigned int>>;
    static void Collect(const std::vector<unsigned int>& ids, const ZoVkModuleFunctionTable& table,
                        FunctionModules& functions);
    void EraseModulesWhere(const FunctionModules& functions, const ZoVkFunctionTest& test, bool erase_when);
    bool RemoveFunction(const FunctionModules& functions, const std::string& name);
};

}  // namespace vulkan::zovk::app
