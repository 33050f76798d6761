#include <tessrakite/location/B.hpp>

#include <tuple>

#include <tessrakite/platform/Console.hpp>

#include "core/RecordFields.hpp"
#include "location/LooseDictionary.hpp"

namespace tessrakite {

namespace {

using coding::optionalField;
using coding::requiredField;

const auto kBFields = std::tuple{requiredField("id", &B::id), requiredField("ib", &B::ib),
                                 optionalField("major", &B::major), optionalField("minor", &B::minor),
                                 optionalField("distance", &B::distance)};

}  // namespace

void to_json(nlohmann::ordered_json& json, const B& value) { coding::encodeFields(json, value, kBFields); }
void from_json(const nlohmann::ordered_json& json, B& value) { coding::decodeFields(json, value, kBFields); }

B B::init(const PlistDictionary& with) {
    using namespace loose;
    auto id = string(with, "id");
    auto ib = string(with, "ib");
    if (!id || !ib) fatalError("B: a beacon of an administrative push needs strings under \"id\" and \"ib\"");
    return B{std::move(*id), std::move(*ib), integer(with, "major"), integer(with, "minor"), integer(with, "distance")};
}

}  // namespace tessrakite
