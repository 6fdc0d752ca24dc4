#pragma once

#include "platform/PlatformExport.h"

#include <string>

/// How the scenes of this process are to be drawn. Written at start, main thread.
class ORVEX_PLATFORM_EXPORT RendererConfig {
public:
    enum Graphics { NATIVE, SOFTWARE, NO_GRAPHICS };

    static RendererConfig& getSingleton();

    /// 0 or less: as many as the renderer sees fit.
    void setNumRenderThreads(int count);
    int getNumRenderThreads() const { return _renderThreads; }
    /// Accepts "native", "software" and "none", in any case.
    /// @return an empty text, or what is wrong with `graphics`; nothing is changed then
    std::string setGraphics(const std::wstring& graphics);
    Graphics getGraphics() const { return _graphics; }

private:
    RendererConfig() = default;

    int _renderThreads = 0;
    Graphics _graphics = NATIVE;
};
