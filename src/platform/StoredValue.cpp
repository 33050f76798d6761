#include "platform/StoredValue.hpp"

#include <bit>
#include <cstring>

namespace tessrakite::platform::stored {
namespace {

// First byte of every blob; bump it if the layout ever changes.
constexpr std::uint8_t kBlobVersion = 1;

enum Tag : std::uint8_t {
    tagNull = 0,
    tagFalse = 1,
    tagTrue = 2,
    tagInteger = 3,  // zigzag varint
    tagReal = 4,     // 8 bytes, little-endian IEEE 754
    tagString = 5,   // varint length, UTF-8 bytes
    tagData = 6,     // varint length, bytes
    tagDate = 7,     // 8 bytes, little-endian IEEE 754 seconds since 1970
    tagArray = 8,    // varint count, values
    tagDictionary = 9,  // varint count, (varint key length, key bytes, value) in key order
};

class Writer {
public:
    // `level`: the nesting level `v` has if it is a container, the outermost being 1.
    bool value(const PlistValue& v, int level) {
        switch (v.type()) {
            case PlistValue::Type::null: byte(tagNull); return true;
            case PlistValue::Type::boolean: byte(*v.asBool() ? tagTrue : tagFalse); return true;
            case PlistValue::Type::integer: {
                byte(tagInteger);
                auto i = *v.asInteger();
                varint((static_cast<std::uint64_t>(i) << 1) ^ static_cast<std::uint64_t>(i >> 63));
                return true;
            }
            case PlistValue::Type::real: byte(tagReal); fixed64(std::bit_cast<std::uint64_t>(*v.asReal())); return true;
            case PlistValue::Type::string: byte(tagString); bytes(v.asString()->data(), v.asString()->size()); return true;
            case PlistValue::Type::data: byte(tagData); bytes(v.asData()->data(), v.asData()->size()); return true;
            case PlistValue::Type::date:
                byte(tagDate);
                fixed64(std::bit_cast<std::uint64_t>(v.asDate()->secondsSince1970));
                return true;
            case PlistValue::Type::array:
                if (level > kMaxBlobDepth) return false;
                byte(tagArray);
                varint(v.asArray()->size());
                for (const auto& e : *v.asArray())
                    if (!value(e, level + 1)) return false;
                return true;
            case PlistValue::Type::dictionary:
                if (level > kMaxBlobDepth) return false;
                byte(tagDictionary);
                varint(v.asDictionary()->size());
                for (const auto& [k, e] : *v.asDictionary()) {
                    bytes(k.data(), k.size());
                    if (!value(e, level + 1)) return false;
                }
                return true;
        }
        return false;
    }

    void byte(std::uint8_t b) { out.push_back(static_cast<char>(b)); }

    std::string out;

private:
    void varint(std::uint64_t v) {
        while (v >= 0x80) {
            byte(static_cast<std::uint8_t>(v | 0x80));
            v >>= 7;
        }
        byte(static_cast<std::uint8_t>(v));
    }
    void fixed64(std::uint64_t v) {
        for (int i = 0; i < 8; ++i) byte(static_cast<std::uint8_t>(v >> (8 * i)));
    }
    void bytes(const void* p, std::size_t n) {
        varint(n);
        out.append(static_cast<const char*>(p), n);
    }
};

class Reader {
public:
    Reader(const std::uint8_t* p, std::size_t n) : p_(p), end_(p + n) {}

    bool atEnd() const { return p_ == end_; }

    bool byte(std::uint8_t& b) {
        if (p_ == end_) return false;
        b = *p_++;
        return true;
    }

    // `level` as in Writer::value.
    std::optional<PlistValue> value(int level) {
        std::uint8_t tag = 0;
        if (!byte(tag)) return std::nullopt;
        switch (tag) {
            case tagNull: return PlistValue();
            case tagFalse: return PlistValue(false);
            case tagTrue: return PlistValue(true);
            case tagInteger: {
                std::uint64_t z = 0;
                if (!varint(z)) return std::nullopt;
                return PlistValue(static_cast<long long>((z >> 1) ^ (~(z & 1) + 1)));
            }
            case tagReal: {
                std::uint64_t bits = 0;
                if (!fixed64(bits)) return std::nullopt;
                return PlistValue(std::bit_cast<double>(bits));
            }
            case tagDate: {
                std::uint64_t bits = 0;
                if (!fixed64(bits)) return std::nullopt;
                return PlistValue(Date{std::bit_cast<double>(bits)});
            }
            case tagString: {
                std::string s;
                if (!text(s)) return std::nullopt;
                return PlistValue(std::move(s));
            }
            case tagData: {
                std::size_t n = 0;
                if (!length(n)) return std::nullopt;
                Data d(p_, p_ + n);
                p_ += n;
                return PlistValue(std::move(d));
            }
            case tagArray: {
                if (level > kMaxBlobDepth) return std::nullopt;
                std::size_t n = 0;
                if (!length(n)) return std::nullopt;  // every element takes at least one byte
                PlistArray a;
                a.reserve(n);
                for (std::size_t i = 0; i < n; ++i) {
                    auto e = value(level + 1);
                    if (!e) return std::nullopt;
                    a.push_back(std::move(*e));
                }
                return PlistValue(std::move(a));
            }
            case tagDictionary: {
                if (level > kMaxBlobDepth) return std::nullopt;
                std::size_t n = 0;
                if (!length(n)) return std::nullopt;
                PlistDictionary d;
                for (std::size_t i = 0; i < n; ++i) {
                    std::string k;
                    if (!text(k)) return std::nullopt;
                    auto e = value(level + 1);
                    if (!e || !d.emplace(std::move(k), std::move(*e)).second) return std::nullopt;
                }
                return PlistValue(std::move(d));
            }
            default: return std::nullopt;
        }
    }

private:
    bool varint(std::uint64_t& v) {
        v = 0;
        for (int shift = 0; shift < 64; shift += 7) {
            std::uint8_t b = 0;
            if (!byte(b)) return false;
            v |= static_cast<std::uint64_t>(b & 0x7F) << shift;
            if (!(b & 0x80)) return true;
        }
        return false;
    }
    // A count or a length; never more than the bytes left, so a corrupt blob cannot make
    // us allocate much.
    bool length(std::size_t& n) {
        std::uint64_t v = 0;
        if (!varint(v) || v > static_cast<std::uint64_t>(end_ - p_)) return false;
        n = static_cast<std::size_t>(v);
        return true;
    }
    bool fixed64(std::uint64_t& v) {
        if (end_ - p_ < 8) return false;
        v = 0;
        for (int i = 0; i < 8; ++i) v |= static_cast<std::uint64_t>(p_[i]) << (8 * i);
        p_ += 8;
        return true;
    }
    bool text(std::string& s) {
        std::size_t n = 0;
        if (!length(n)) return false;
        s.assign(reinterpret_cast<const char*>(p_), n);
        p_ += n;
        return true;
    }

    const std::uint8_t* p_;
    const std::uint8_t* end_;
};

}  // namespace

std::optional<std::string> encodeBlob(const PlistValue& value) {
    Writer w;
    w.byte(kBlobVersion);
    if (!w.value(value, 1)) return std::nullopt;
    return std::move(w.out);
}

std::optional<PlistValue> decodeBlob(const void* bytes, std::size_t size) {
    if (!bytes) return std::nullopt;
    Reader r(static_cast<const std::uint8_t*>(bytes), size);
    std::uint8_t version = 0;
    if (!r.byte(version) || version != kBlobVersion) return std::nullopt;
    auto v = r.value(1);
    if (!v || !r.atEnd()) return std::nullopt;
    return v;
}

}  // namespace tessrakite::platform::stored
