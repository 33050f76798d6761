#include <tessrakite/push/N.hpp>

#include "core/JSONCoding.hpp"

namespace tessrakite {

void to_json(nlohmann::ordered_json& json, const N& value) {
    coding::KeyedEncoder out(json);
    out.encodeIfPresent("renotify", value.renotify);
    out.encodeIfPresent("el", value.el);
    out.encodeIfPresent("ap", value.ap);
    out.encodeIfPresent("an", value.an);
    out.encodeIfPresent("tc", value.tc);
    out.encodeIfPresent("dc", value.dc);
    out.encodeIfPresent("cl", value.cl);
    out.encodeIfPresent("tag", value.tag);
    out.encodeIfPresent("sound", value.sound);
    out.encodeIfPresent("vibrate", value.vibrate);
    out.encodeIfPresent("badge", value.badge);
    out.encodeIfPresent("image", value.image);
    out.encodeIfPresent("body", value.body);
    out.encodeIfPresent("actions", value.actions);
    out.encodeIfPresent("data", value.data);
    out.encodeIfPresent("silent", value.silent);
    out.encodeIfPresent("tid", value.tid);
    out.encodeIfPresent("scl", value.scl);
}

void from_json(const nlohmann::ordered_json& json, N& value) {
    coding::KeyedDecoder in(json);
    value.renotify = in.decodeIfPresent<bool>("renotify");
    value.el = in.decodeIfPresent<std::int64_t>("el");
    value.ap = in.decodeIfPresent<std::string>("ap");
    value.an = in.decodeIfPresent<std::string>("an");
    value.tc = in.decodeIfPresent<std::string>("tc");
    value.dc = in.decodeIfPresent<std::string>("dc");
    value.cl = in.decodeIfPresent<std::int64_t>("cl");
    value.tag = in.decodeIfPresent<std::string>("tag");
    value.sound = in.decodeIfPresent<std::string>("sound");
    value.vibrate = in.decodeIfPresent<std::vector<std::int64_t>>("vibrate");
    value.badge = in.decodeIfPresent<std::string>("badge");
    value.image = in.decodeIfPresent<std::string>("image");
    value.body = in.decodeIfPresent<std::string>("body");
    value.actions = in.decodeIfPresent<std::vector<Action>>("actions");
    value.data = in.decodeIfPresent<Conversion>("data");
    value.silent = in.decodeIfPresent<bool>("silent");
    value.tid = in.decodeIfPresent<std::string>("tid");
    value.scl = in.decodeIfPresent<bool>("scl");
}

}  // namespace tessrakite
