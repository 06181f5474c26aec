#pragma once

namespace vulkan {

// What the platform loader asks the layer through the object that createInstance
// hands back.
class IZoVkStub {
public:
    virtual ~IZoVkStub() = default;
    virtual const char* getLayerName() = 0;
    virtual bool isEnabled() = 0;
    virtual bool isDebuggable() = 0;
};

class ZoVkStubImpl : public IZoVkStub {
public:
    ~ZoVkStubImpl() override = default;
    const char* getLayerName() override;
    bool isEnabled() override;
    bool isDebuggable() override;
};

}  // namespace vulkan
