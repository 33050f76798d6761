#include <tessrakite/location/Gl.hpp>

#include <tuple>

#include <tessrakite/platform/Console.hpp>

#include "core/RecordFields.hpp"
#include "location/LooseDictionary.hpp"

namespace tessrakite {

namespace {

using coding::optionalField;
using coding::requiredField;

const auto kGlFields = std::tuple{requiredField("c", &Gl::c),   optionalField("e", &Gl::e),
                                  optionalField("er", &Gl::er), optionalField("lr", &Gl::lr),
                                  optionalField("r", &Gl::r),   requiredField("id", &Gl::id)};

}  // namespace

void to_json(nlohmann::ordered_json& json, const Gl& value) { coding::encodeFields(json, value, kGlFields); }
void from_json(const nlohmann::ordered_json& json, Gl& value) { coding::decodeFields(json, value, kGlFields); }

Gl Gl::init(const PlistDictionary& with) {
    using namespace loose;
    Gl gl;
    auto c = stringList(with, "c");
    if (!c) fatalError("Gl: a geofence of an administrative push has no list of strings under \"c\"");
    gl.c = std::move(*c);
    gl.e = string(with, "e");
    gl.er = boolean(with, "er");
    gl.lr = boolean(with, "lr");
    gl.r = integer(with, "e");  // the push carries the radius under "e"
    auto id = string(with, "id");
    if (!id) fatalError("Gl: a geofence of an administrative push has no string under \"id\"");
    gl.id = std::move(*id);
    return gl;
}

}  // namespace tessrakite
