#pragma once

namespace tessrakite {

/// The sizes a host may ask a TessraAdLoader for. Every size loads a full-screen ad.
enum class NativeAdSize { fullScreen, medium, small };

}  // namespace tessrakite
