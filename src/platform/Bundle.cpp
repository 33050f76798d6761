#include <tessrakite/platform/Bundle.hpp>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string_view>
#include <system_error>

#include <plist/plist.h>
#include <unistd.h>

#include "platform/Nesting.hpp"

namespace tessrakite::platform {
namespace {

// libplist builds and frees its trees recursively, so a too deep document has to be refused
// before it gets there. For XML: count the <array> and <dict> elements open at once; text
// that merely looks like a tag (in a comment, say) only makes the count stricter.
bool xmlWithinLimit(std::string_view text) {
    int depth = 0;
    for (auto at = text.find('<'); at != std::string_view::npos; at = text.find('<', at + 1)) {
        const auto tag = text.substr(at + 1);
        const bool closing = !tag.empty() && tag.front() == '/';
        const auto name = closing ? tag.substr(1) : tag;
        std::size_t length = name.starts_with("array") ? 5 : name.starts_with("dict") ? 4 : 0;
        if (!length || name.size() == length) continue;
        const char next = name[length];
        if (next == '/' || (next != '>' && next != ' ' && next != '\t' && next != '\n' && next != '\r')) continue;
        if (closing) {
            --depth;
        } else {
            const auto end = name.find('>');
            if (end != std::string_view::npos && end > 0 && name[end - 1] == '/') continue;  // <array />
            if (++depth > nesting::kMaxDepth) return false;
        }
    }
    return true;
}

// `level`: the nesting level `node` has if it is a container, the outermost being 1.
PlistValue fromNode(plist_t node, int level) {
    switch (plist_get_node_type(node)) {
        case PLIST_BOOLEAN: {
            std::uint8_t b = 0;
            plist_get_bool_val(node, &b);
            return PlistValue(b != 0);
        }
        case PLIST_UINT: {
            std::uint64_t v = 0;
            plist_get_uint_val(node, &v);
            return PlistValue(static_cast<long long>(v));
        }
        case PLIST_REAL: {
            double d = 0;
            plist_get_real_val(node, &d);
            return PlistValue(d);
        }
        case PLIST_STRING: {
            char* s = nullptr;
            plist_get_string_val(node, &s);
            PlistValue out(std::string(s ? s : ""));
            std::free(s);
            return out;
        }
        case PLIST_DATA: {
            char* bytes = nullptr;
            std::uint64_t length = 0;
            plist_get_data_val(node, &bytes, &length);
            Data data(reinterpret_cast<std::uint8_t*>(bytes), reinterpret_cast<std::uint8_t*>(bytes) + length);
            std::free(bytes);
            return PlistValue(std::move(data));
        }
        case PLIST_DATE: {
            std::int32_t sec = 0, usec = 0;
            plist_get_date_val(node, &sec, &usec);
            // Property-list dates count from 2001-01-01.
            return PlistValue(Date{978307200.0 + sec + usec / 1e6});
        }
        case PLIST_ARRAY: {
            nesting::check(level);
            PlistArray out;
            std::uint32_t n = plist_array_get_size(node);
            for (std::uint32_t i = 0; i < n; ++i) out.push_back(fromNode(plist_array_get_item(node, i), level + 1));
            return PlistValue(std::move(out));
        }
        case PLIST_DICT: {
            nesting::check(level);
            PlistDictionary out;
            plist_dict_iter it = nullptr;
            plist_dict_new_iter(node, &it);
            try {
                for (;;) {
                    char* key = nullptr;
                    plist_t value = nullptr;
                    plist_dict_next_item(node, it, &key, &value);
                    if (!key) break;
                    std::string name(key);
                    std::free(key);
                    out.emplace(std::move(name), fromNode(value, level + 1));
                }
            } catch (...) {
                std::free(it);
                throw;
            }
            std::free(it);
            return PlistValue(std::move(out));
        }
        default:
            return PlistValue();
    }
}

// Nothing for a tree nested deeper than nesting::kMaxDepth; `level` as in fromNode.
plist_t toNode(const PlistValue& v, int level) {
    switch (v.type()) {
        case PlistValue::Type::null: return plist_new_string("");
        case PlistValue::Type::boolean: return plist_new_bool(*v.asBool() ? 1 : 0);
        case PlistValue::Type::integer: return plist_new_uint(static_cast<std::uint64_t>(*v.asInteger()));
        case PlistValue::Type::real: return plist_new_real(*v.asReal());
        case PlistValue::Type::string: return plist_new_string(v.asString()->c_str());
        case PlistValue::Type::data:
            return plist_new_data(reinterpret_cast<const char*>(v.asData()->data()), v.asData()->size());
        case PlistValue::Type::date: {
            double since2001 = v.asDate()->secondsSince1970 - 978307200.0;
            auto sec = static_cast<std::int32_t>(since2001);
            return plist_new_date(sec, static_cast<std::int32_t>((since2001 - sec) * 1e6));
        }
        case PlistValue::Type::array: {
            if (level > nesting::kMaxDepth) return nullptr;
            plist_t a = plist_new_array();
            for (const auto& e : *v.asArray()) {
                plist_t node = toNode(e, level + 1);
                if (!node) {
                    plist_free(a);
                    return nullptr;
                }
                plist_array_append_item(a, node);
            }
            return a;
        }
        case PlistValue::Type::dictionary: {
            if (level > nesting::kMaxDepth) return nullptr;
            plist_t d = plist_new_dict();
            for (const auto& [k, e] : *v.asDictionary()) {
                plist_t node = toNode(e, level + 1);
                if (!node) {
                    plist_free(d);
                    return nullptr;
                }
                plist_dict_set_item(d, k.c_str(), node);
            }
            return d;
        }
    }
    return plist_new_string("");
}

// Never destroyed: a network completion may still read the bundle while the process exits.
std::mutex& mainMutex() {
    static auto* m = new std::mutex;
    return *m;
}
std::shared_ptr<Bundle>& mainSlot() {
    static auto* b = new std::shared_ptr<Bundle>;
    return *b;
}

std::filesystem::path executableFolder() {
    std::error_code ec;
    auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec) return std::filesystem::current_path(ec);
    return exe.parent_path();
}

}  // namespace

std::optional<PlistValue> readPropertyList(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) return std::nullopt;
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (bytes.empty()) return std::nullopt;
    if (!std::string_view(bytes).starts_with("bplist") && !xmlWithinLimit(bytes)) return std::nullopt;
    plist_t root = nullptr;
    plist_from_memory(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &root);
    if (!root) return std::nullopt;
    std::optional<PlistValue> out;
    try {
        out = fromNode(root, 1);
    } catch (const nesting::TooDeep&) {
        // A binary list is not scanned beforehand; it is refused here instead.
    }
    plist_free(root);
    return out;
}

bool writePropertyList(const std::filesystem::path& file, const PlistValue& value) {
    plist_t root = toNode(value, 1);
    if (!root) return false;
    char* xml = nullptr;
    std::uint32_t length = 0;
    plist_to_xml(root, &xml, &length);
    plist_free(root);
    if (!xml) return false;
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(xml, length);
    std::free(xml);
    return static_cast<bool>(out);
}

Bundle::Bundle(std::filesystem::path path, PlistDictionary info) : path_(std::move(path)), info_(std::move(info)) {}

std::shared_ptr<Bundle> Bundle::open(const std::filesystem::path& folder) {
    std::error_code ec;
    if (folder.empty() || !std::filesystem::is_directory(folder, ec)) return nullptr;
    PlistDictionary info;
    if (auto plist = readPropertyList(folder / "Info.plist"); plist && plist->asDictionary())
        info = *plist->asDictionary();
    auto canonical = std::filesystem::weakly_canonical(folder, ec);
    return std::make_shared<Bundle>(ec ? folder : canonical, std::move(info));
}

std::shared_ptr<Bundle> Bundle::main() {
    std::lock_guard lock(mainMutex());
    auto& slot = mainSlot();
    if (!slot) {
        const char* env = std::getenv("TESSRA_MAIN_BUNDLE");
        if (env && *env) slot = open(env);
        if (!slot) slot = open(executableFolder());
        if (!slot) slot = std::make_shared<Bundle>(executableFolder(), PlistDictionary{});
    }
    return slot;
}

std::shared_ptr<Bundle> Bundle::containingApplication(const Bundle& extension) {
    auto url = extension.bundleURL();
    if (!url.has_filename()) url = url.parent_path();  // "X.appex/"
    if (url.extension() != ".appex" || url.parent_path().filename() != "PlugIns") return nullptr;
    return open(url.parent_path().parent_path());
}

void Bundle::setMain(std::shared_ptr<Bundle> bundle) {
    std::lock_guard lock(mainMutex());
    mainSlot() = std::move(bundle);
}

const PlistValue* Bundle::object(std::string_view key) const {
    auto it = info_.find(key);
    return it == info_.end() ? nullptr : &it->second;
}

std::optional<std::string> Bundle::string(std::string_view key) const {
    const auto* v = object(key);
    if (!v || !v->asString()) return std::nullopt;
    return *v->asString();
}

std::optional<std::filesystem::path> Bundle::pathForResource(const std::string& name) const {
    std::error_code ec;
    for (const auto& candidate : {path_ / name, path_ / (name + ".png")}) {
        if (std::filesystem::is_regular_file(candidate, ec)) return candidate;
    }
    return std::nullopt;
}

}  // namespace tessrakite::platform
