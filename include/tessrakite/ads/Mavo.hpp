#pragma once

#include <tessrakite/Export.hpp>

namespace tessrakite {

/// Names the ad feature; it holds nothing.
class TESSRA_EXPORT Mavo {};

}  // namespace tessrakite
