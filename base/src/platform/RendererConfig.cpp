#include "platform/RendererConfig.h"

#include "platform/StringHelper.h"

#include <algorithm>

namespace {

constexpr struct {
    const char* name;
    RendererConfig::Graphics graphics;
} NAMES[] = {{"native", RendererConfig::NATIVE},
             {"software", RendererConfig::SOFTWARE},
             {"none", RendererConfig::NO_GRAPHICS}};

} // namespace

RendererConfig& RendererConfig::getSingleton() {
    static RendererConfig singleton;
    return singleton;
}

void RendererConfig::setNumRenderThreads(int count) {
    _renderThreads = std::max(count, 0);
}

std::string RendererConfig::setGraphics(const std::wstring& graphics) {
    const std::string name = StringHelper::toLower(StringHelper::toString(graphics));
    for (const auto& entry : NAMES) {
        if (name == entry.name) {
            _graphics = entry.graphics;
            return {};
        }
    }
    return "Unknown graphics \"" + StringHelper::toString(graphics) +
           "\". Expected is native, software or none.";
}
