#include "platform/SqliteUserDefaults.hpp"

#include <array>
#include <limits>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>

#include <sqlite3.h>

#include <tessrakite/platform/Console.hpp>

#include "platform/SqliteFile.hpp"
#include "platform/StoredValue.hpp"

namespace tessrakite::platform {
namespace {

using stored::StoredType;
using sqlitefile::BusyWait;
using sqlitefile::busyHandler;
using sqlitefile::isCorruption;
using namespace std::chrono_literals;

constexpr const char* kCreateTable =
    "CREATE TABLE IF NOT EXISTS defaults("
    "key TEXT PRIMARY KEY NOT NULL, type INTEGER NOT NULL, value) WITHOUT ROWID";
constexpr const char* kSelect = "SELECT type, value FROM defaults WHERE key = ?1";
constexpr const char* kSelectAll = "SELECT key, type, value FROM defaults";
constexpr const char* kUpsert =
    "INSERT INTO defaults(key, type, value) VALUES(?1, ?2, ?3) "
    "ON CONFLICT(key) DO UPDATE SET type = excluded.type, value = excluded.value";
constexpr const char* kDelete = "DELETE FROM defaults WHERE key = ?1";

// A process's cache holds the keys it reads; a host reading arbitrary keys must not grow
// it without bound.
constexpr std::size_t kMaxCachedKeys = 4096;

struct StringHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view s) const noexcept { return std::hash<std::string_view>{}(s); }
};
template <class V>
using KeyMap = std::unordered_map<std::string, V, StringHash, std::equal_to<>>;

// Resets a statement when leaving the scope, so no read transaction stays open.
class ResetOnExit {
public:
    explicit ResetOnExit(sqlite3_stmt* s) : s_(s) {}
    ~ResetOnExit() { sqlite3_reset(s_); }
    ResetOnExit(const ResetOnExit&) = delete;
    ResetOnExit& operator=(const ResetOnExit&) = delete;

private:
    sqlite3_stmt* s_;
};

int bindText(sqlite3_stmt* s, int index, std::string_view text) {
    // A null pointer would bind SQL NULL; an empty key or string is still text.
    return sqlite3_bind_text64(s, index, text.data() ? text.data() : "", text.size(), SQLITE_STATIC, SQLITE_UTF8);
}

int bindBlob(sqlite3_stmt* s, int index, const void* bytes, std::size_t size) {
    return sqlite3_bind_blob64(s, index, bytes ? bytes : "", size, SQLITE_STATIC);
}

std::optional<PlistValue> columnValue(sqlite3_stmt* s, int typeColumn, int valueColumn) {
    const int kind = sqlite3_column_type(s, valueColumn);
    switch (static_cast<StoredType>(sqlite3_column_int64(s, typeColumn))) {
        case StoredType::boolean:
            if (kind != SQLITE_INTEGER) return std::nullopt;
            return PlistValue(sqlite3_column_int64(s, valueColumn) != 0);
        case StoredType::integer:
            if (kind != SQLITE_INTEGER) return std::nullopt;
            return PlistValue(static_cast<long long>(sqlite3_column_int64(s, valueColumn)));
        case StoredType::real:
        case StoredType::date: {
            double d = 0;
            if (kind == SQLITE_NULL)
                d = std::numeric_limits<double>::quiet_NaN();
            else if (kind == SQLITE_FLOAT)
                d = sqlite3_column_double(s, valueColumn);
            else
                return std::nullopt;
            if (static_cast<StoredType>(sqlite3_column_int64(s, typeColumn)) == StoredType::date)
                return PlistValue(Date{d});
            return PlistValue(d);
        }
        case StoredType::string: {
            if (kind != SQLITE_TEXT) return std::nullopt;
            const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(s, valueColumn));
            auto size = static_cast<std::size_t>(sqlite3_column_bytes(s, valueColumn));
            return PlistValue(std::string(text ? text : "", text ? size : 0));
        }
        case StoredType::data: {
            if (kind != SQLITE_BLOB) return std::nullopt;
            const auto* bytes = static_cast<const std::uint8_t*>(sqlite3_column_blob(s, valueColumn));
            auto size = static_cast<std::size_t>(sqlite3_column_bytes(s, valueColumn));
            return PlistValue(bytes ? Data(bytes, bytes + size) : Data{});
        }
        case StoredType::array:
        case StoredType::dictionary: {
            if (kind != SQLITE_BLOB) return std::nullopt;
            const void* bytes = sqlite3_column_blob(s, valueColumn);
            auto size = static_cast<std::size_t>(sqlite3_column_bytes(s, valueColumn));
            auto v = stored::decodeBlob(bytes, size);
            bool wantArray = static_cast<StoredType>(sqlite3_column_int64(s, typeColumn)) == StoredType::array;
            if (!v || (wantArray ? !v->asArray() : !v->asDictionary())) return std::nullopt;
            return v;
        }
    }
    // A type this build does not know (written by a newer one): absent, like any mismatch.
    return std::nullopt;
}

// Binds ?2 (type) and ?3 (value). `scratch` holds an encoded container until the
// statement has run. False when the value cannot be stored; raises nesting::TooDeep for a
// container nested too deeply, which is not kept in memory either (every copy of it would
// recurse).
bool bindValue(sqlite3_stmt* s, const PlistValue& v, std::string& scratch) {
    auto type = [&](StoredType t) { return sqlite3_bind_int64(s, 2, static_cast<sqlite3_int64>(t)); };
    switch (v.type()) {
        case PlistValue::Type::null: return false;
        case PlistValue::Type::boolean:
            type(StoredType::boolean);
            return sqlite3_bind_int64(s, 3, *v.asBool() ? 1 : 0) == SQLITE_OK;
        case PlistValue::Type::integer:
            type(StoredType::integer);
            return sqlite3_bind_int64(s, 3, *v.asInteger()) == SQLITE_OK;
        case PlistValue::Type::real:
            type(StoredType::real);
            return sqlite3_bind_double(s, 3, *v.asReal()) == SQLITE_OK;
        case PlistValue::Type::date:
            type(StoredType::date);
            return sqlite3_bind_double(s, 3, v.asDate()->secondsSince1970) == SQLITE_OK;
        case PlistValue::Type::string:
            type(StoredType::string);
            return bindText(s, 3, *v.asString()) == SQLITE_OK;
        case PlistValue::Type::data:
            type(StoredType::data);
            return bindBlob(s, 3, v.asData()->data(), v.asData()->size()) == SQLITE_OK;
        case PlistValue::Type::array:
        case PlistValue::Type::dictionary: {
            auto blob = stored::encodeBlob(v);
            if (!blob) throw nesting::TooDeep();
            scratch = std::move(*blob);
            type(v.asArray() ? StoredType::array : StoredType::dictionary);
            return bindBlob(s, 3, scratch.data(), scratch.size()) == SQLITE_OK;
        }
    }
    return false;
}

// A lock-free "did any connection commit?" test. Every commit rewrites the WAL-index
// header at the start of the -shm file (the first 48-byte copy is written last), and its
// change counter moves with each transaction. While those bytes are unchanged no commit
// has been published, so the cache is valid without starting a read transaction, which
// costs two fcntl() calls. When they change, PRAGMA data_version decides.
class WalHeaderWatch {
public:
    static constexpr std::size_t kWords = 12;  // one copy of the header: 48 bytes

    WalHeaderWatch() = default;
    WalHeaderWatch(const WalHeaderWatch&) = delete;
    WalHeaderWatch& operator=(const WalHeaderWatch&) = delete;
    ~WalHeaderWatch() { close(); }

    /// Borrows SQLite's own mapping of the index's first region from the connection. An
    /// fd of our own on the -shm file would be wrong: closing it drops every POSIX lock
    /// this process holds on that file, SQLite's included, and another process could
    /// then reset the index under us.
    bool attach(sqlite3* db) {
        close();
        sqlite3_file* file = nullptr;
        if (sqlite3_file_control(db, "main", SQLITE_FCNTL_FILE_POINTER, &file) != SQLITE_OK || !file ||
            !file->pMethods || file->pMethods->iVersion < 2 || !file->pMethods->xShmMap)
            return false;
        volatile void* region = nullptr;
        if (file->pMethods->xShmMap(file, 0, kRegionBytes, 0, &region) != SQLITE_OK || !region) return false;
        header_ = const_cast<const std::uint32_t*>(static_cast<volatile std::uint32_t*>(region));
        acknowledged_.reset();
        return true;
    }

    /// SQLite unmaps the region when the connection closes; call this before that.
    void close() {
        header_ = nullptr;
        acknowledged_.reset();
    }

    bool active() const { return header_ != nullptr; }

    /// Reads the header; true when it differs from the last acknowledged one.
    bool changed() {
        for (std::size_t i = 0; i < kWords; ++i) seen_[i] = __atomic_load_n(header_ + i, __ATOMIC_ACQUIRE);
        return !acknowledged_ || *acknowledged_ != seen_;
    }
    /// The header read by the last changed() has been accounted for. It was read before
    /// the data version was queried, so a commit in between is seen again next time.
    void acknowledge() { acknowledged_ = seen_; }
    void forget() { acknowledged_.reset(); }

private:
    static constexpr int kRegionBytes = 32768;  // the size SQLite maps index regions in
    const std::uint32_t* header_ = nullptr;
    std::array<std::uint32_t, kWords> seen_{};
    std::optional<std::array<std::uint32_t, kWords>> acknowledged_;
};

}  // namespace

struct SqliteUserDefaults::Impl {
    using Opened = sqlitefile::Opened;

    Impl(std::filesystem::path f, const Options& o) : file(std::move(f)), options(o), busy{o.busyTimeout, {}} {}
    ~Impl() { disconnect(); }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    std::filesystem::path file;
    Options options;
    std::mutex mutex;

    sqlite3* db = nullptr;
    sqlite3_stmt* dataVersionStmt = nullptr;
    sqlite3_stmt* selectStmt = nullptr;
    sqlite3_stmt* selectAllStmt = nullptr;
    sqlite3_stmt* upsertStmt = nullptr;
    sqlite3_stmt* deleteStmt = nullptr;
    sqlite3_stmt* beginStmt = nullptr;
    sqlite3_stmt* commitStmt = nullptr;
    sqlite3_stmt* rollbackStmt = nullptr;
    BusyWait busy;
    WalHeaderWatch walHeader;
    sqlitefile::FileIdentity fileIdentity;

    std::optional<sqlite3_int64> dataVersion;
    // What this process knows of the store; nullopt records a missing key.
    KeyMap<std::optional<PlistValue>> cache;
    // Writes that could not be saved; they win over the file for this process.
    KeyMap<std::optional<PlistValue>> unsaved;

    // ---- connection ----

    std::string lastError(int rc) const { return db ? sqlite3_errmsg(db) : sqlite3_errstr(rc); }

    Opened classify(int rc, std::string& why) const {
        why = lastError(rc);
        if (isCorruption(rc)) return Opened::corrupt;
        const int primary = rc & 0xff;
        return primary == SQLITE_BUSY || primary == SQLITE_LOCKED ? Opened::busy : Opened::failed;
    }

    int prepare(const char* sql, sqlite3_stmt** stmt) {
        return sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, stmt, nullptr);
    }

    // Runs a one-row pragma and returns its first column as text.
    int queryText(const char* sql, std::string& out) {
        sqlite3_stmt* s = nullptr;
        int rc = sqlite3_prepare_v2(db, sql, -1, &s, nullptr);
        if (rc == SQLITE_OK) {
            rc = sqlite3_step(s);
            if (rc == SQLITE_ROW) {
                const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(s, 0));
                out = text ? text : "";
                rc = SQLITE_OK;
            } else if (rc == SQLITE_DONE) {
                rc = SQLITE_OK;
            }
        }
        sqlite3_finalize(s);
        return rc;
    }

    Opened tryConnect(std::string& why) {
        if (!sqlitefile::createPrivateFile(file, fileIdentity, why)) return Opened::failed;

        int rc = sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                                 nullptr);
        if (rc != SQLITE_OK) return classify(rc, why);
        sqlite3_extended_result_codes(db, 1);
        sqlite3_busy_handler(db, busyHandler, &busy);

        std::string journalMode;
        if ((rc = queryText("PRAGMA journal_mode=WAL", journalMode)) != SQLITE_OK) return classify(rc, why);
        if ((rc = sqlite3_exec(db, "PRAGMA synchronous=NORMAL", nullptr, nullptr, nullptr)) != SQLITE_OK)
            return classify(rc, why);
        if ((rc = sqlite3_exec(db, kCreateTable, nullptr, nullptr, nullptr)) != SQLITE_OK) return classify(rc, why);
        // The file is small; checking every page at open finds damage before a read trips on it.
        std::string check;
        if ((rc = queryText("PRAGMA quick_check(1)", check)) != SQLITE_OK) return classify(rc, why);
        if (check != "ok") {
            why = check;
            return Opened::corrupt;
        }
        // A table without our columns (an older layout, another tool) is not ours to read or
        // write: the store would fail on every start. Extra columns, as a later build might
        // add, are left alone.
        std::string found;
        if ((rc = queryText("SELECT count(*) FROM pragma_table_info('defaults') "
                            "WHERE name IN ('key', 'type', 'value')",
                            found)) != SQLITE_OK)
            return classify(rc, why);
        if (found != "3") {
            std::string columns;
            queryText("SELECT group_concat(name, ',') FROM pragma_table_info('defaults')", columns);
            why = "its table \"defaults\" has the columns (" + columns + "), not (key,type,value)";
            return Opened::corrupt;
        }
        const std::pair<const char*, sqlite3_stmt**> statements[] = {
            {"PRAGMA data_version", &dataVersionStmt},
            {kSelect, &selectStmt},
            {kSelectAll, &selectAllStmt},
            {kUpsert, &upsertStmt},
            {kDelete, &deleteStmt},
            {"BEGIN IMMEDIATE", &beginStmt},
            {"COMMIT", &commitStmt},
            {"ROLLBACK", &rollbackStmt},
        };
        for (const auto& [sql, stmt] : statements) {
            if ((rc = prepare(sql, stmt)) == SQLITE_OK) continue;
            // Our own statements only fail to compile against a table that is not ours
            // (the right column names, but no key constraint, say).
            if ((rc & 0xff) == SQLITE_ERROR) {
                why = "its table \"defaults\" is not a key/value table: " + lastError(rc);
                return Opened::corrupt;
            }
            return classify(rc, why);
        }

        if (options.walHeaderPrecheck && journalMode == "wal") walHeader.attach(db);
        return Opened::ok;
    }

    bool connect() {
        std::string why;
        const Opened result = sqlitefile::openWithRecovery(
            [this](std::string& w) { return tryConnect(w); }, [this] { disconnect(); }, options.busyTimeout, file,
            fileIdentity, "UserDefaults", why);
        if (result != Opened::ok) {
            disconnect();
            Console::print("UserDefaults: cannot open " + file.string() + ": " + why);
            return false;
        }
        return true;
    }

    void disconnect() {
        walHeader.close();
        for (sqlite3_stmt** s : {&dataVersionStmt, &selectStmt, &selectAllStmt, &upsertStmt, &deleteStmt, &beginStmt,
                                 &commitStmt, &rollbackStmt}) {
            sqlite3_finalize(*s);
            *s = nullptr;
        }
        if (db) sqlite3_close_v2(db);
        db = nullptr;
        dataVersion.reset();
    }

    void moveAside(const std::string& why) { sqlitefile::moveAside(file, fileIdentity, why, "UserDefaults"); }

    // A statement reported damage while running: start over on a fresh file.
    bool recover(int rc) {
        std::string why = lastError(rc);
        disconnect();
        cache.clear();
        moveAside(why);
        return connect();
    }

    // Runs `op` (which returns an SQLite result code) and, when it found the database
    // damaged, recovers and runs it once more.
    template <class Op>
    int withRecovery(Op op) {
        if (!db) return SQLITE_CANTOPEN;
        int rc = op();
        if (isCorruption(rc) && recover(rc)) rc = op();
        return rc;
    }

    // ---- cache ----

    // Drops the cache when another connection has committed since the last check.
    void revalidate() {
        if (!db) return;
        if (walHeader.active() && !walHeader.changed()) return;
        int rc = sqlite3_step(dataVersionStmt);
        if (rc == SQLITE_ROW) {
            sqlite3_int64 version = sqlite3_column_int64(dataVersionStmt, 0);
            sqlite3_reset(dataVersionStmt);
            if (dataVersion != version) {
                cache.clear();
                dataVersion = version;
            }
            walHeader.acknowledge();
            return;
        }
        sqlite3_reset(dataVersionStmt);
        // Cannot tell what changed: trust nothing cached.
        cache.clear();
        dataVersion.reset();
        walHeader.forget();
        if (isCorruption(rc)) recover(rc);
    }

    void remember(std::string_view key, const std::optional<PlistValue>& value) {
        if (cache.size() >= kMaxCachedKeys) cache.clear();
        cache.insert_or_assign(std::string(key), value);
    }

    // ---- statements ----

    int selectRow(std::string_view key, std::optional<PlistValue>& out) {
        ResetOnExit reset(selectStmt);
        bindText(selectStmt, 1, key);
        int rc = sqlite3_step(selectStmt);
        if (rc == SQLITE_ROW) {
            out = columnValue(selectStmt, 0, 1);
            return SQLITE_OK;
        }
        if (rc == SQLITE_DONE) {
            out.reset();
            return SQLITE_OK;
        }
        return rc;
    }

    // `value`: nothing removes the key.
    int store(std::string_view key, const PlistValue* value) {
        sqlite3_stmt* s = value ? upsertStmt : deleteStmt;
        ResetOnExit reset(s);
        std::string scratch;
        bindText(s, 1, key);
        if (value && !bindValue(s, *value, scratch)) return SQLITE_TOOBIG;
        int rc = sqlite3_step(s);
        return rc == SQLITE_DONE ? SQLITE_OK : rc;
    }

    int run(sqlite3_stmt* s) {
        int rc = sqlite3_step(s);
        sqlite3_reset(s);
        return rc == SQLITE_DONE ? SQLITE_OK : rc;
    }

    void rollback() {
        if (db && !sqlite3_get_autocommit(db)) run(rollbackStmt);
    }

    std::string describe(int rc) const {
        if (rc == SQLITE_TOOBIG) return "the value is too large";
        if (rc == SQLITE_CANTOPEN && !db) return "the store is not open";
        return lastError(rc);
    }

    // The write failed: this process keeps seeing the value, and says so once.
    void keepUnsaved(std::string_view key, const std::optional<PlistValue>& value, int rc) {
        std::string what = value ? "save" : "remove";
        Console::print("UserDefaults: cannot " + what + " \"" + std::string(key) + "\" in " + file.string() + " (" +
                       describe(rc) + "); this process keeps the change, other processes do not see it");
        unsaved.insert_or_assign(std::string(key), value);
        remember(key, value);
    }

    // ---- operations (caller holds the mutex) ----

    std::optional<PlistValue> read(std::string_view key) {
        if (auto it = unsaved.find(key); it != unsaved.end()) return it->second;
        revalidate();
        if (auto it = cache.find(key); it != cache.end()) return it->second;
        std::optional<PlistValue> value;
        if (withRecovery([&] { return selectRow(key, value); }) != SQLITE_OK) return std::nullopt;
        remember(key, value);
        return value;
    }

    // `value`: nothing removes the key. Copied only once the store took it: a value nested
    // too deeply is refused before any copy could recurse.
    void write(std::string_view key, const PlistValue* value) {
        int rc = withRecovery([&] { return store(key, value); });
        const std::optional<PlistValue> copy = value ? std::optional<PlistValue>(*value) : std::nullopt;
        if (rc != SQLITE_OK) {
            keepUnsaved(key, copy, rc);
            return;
        }
        unsaved.erase(std::string(key));
        remember(key, copy);
    }

    // Reads `keys`, lets `fn` change the values and writes every key left in them, all in
    // one immediate transaction.
    void update(const std::vector<std::string>& keys, const BatchUpdater& fn, const std::string& what) {
        // Whatever happens below, no transaction is left open on the connection.
        struct RollbackOnExit {
            Impl& impl;
            ~RollbackOnExit() { impl.rollback(); }
        } guard{*this};
        Values values;
        int rc = withRecovery([&] {
            values.clear();
            int r = run(beginStmt);
            if (r != SQLITE_OK) return r;
            for (const auto& key : keys) {
                if (auto it = unsaved.find(key); it != unsaved.end()) {
                    values.insert_or_assign(key, it->second);
                    continue;
                }
                std::optional<PlistValue> current;
                r = selectRow(key, current);
                if (r != SQLITE_OK) {
                    rollback();
                    return r;
                }
                values.insert_or_assign(key, std::move(current));
            }
            return SQLITE_OK;
        });
        const bool inTransaction = rc == SQLITE_OK;
        if (!inTransaction) {  // decide on what this process sees
            values.clear();
            for (const auto& key : keys) values.insert_or_assign(key, read(key));
        }

        try {
            fn(values);
        } catch (const std::exception& e) {
            Console::print("UserDefaults: update of \"" + what + "\" failed: " + e.what());
            return;
        } catch (...) {
            Console::print("UserDefaults: update of \"" + what + "\" failed");
            return;
        }
        for (auto& [key, value] : values)
            if (value && value->isNull()) value.reset();

        if (inTransaction) {
            for (const auto& [key, value] : values)
                if ((rc = store(key, value ? &*value : nullptr)) != SQLITE_OK) break;
            if (rc == SQLITE_OK) rc = run(commitStmt);
        }
        if (rc != SQLITE_OK) {
            rollback();
            for (const auto& [key, value] : values) keepUnsaved(key, value, rc);
            return;
        }
        for (const auto& [key, value] : values) {
            unsaved.erase(key);
            remember(key, value);
        }
    }

    PlistDictionary all() {
        PlistDictionary out;
        withRecovery([&] {
            out.clear();
            ResetOnExit reset(selectAllStmt);
            int rc;
            while ((rc = sqlite3_step(selectAllStmt)) == SQLITE_ROW) {
                const auto* key = reinterpret_cast<const char*>(sqlite3_column_text(selectAllStmt, 0));
                auto size = static_cast<std::size_t>(sqlite3_column_bytes(selectAllStmt, 0));
                if (auto v = columnValue(selectAllStmt, 1, 2); v && key) out.insert_or_assign(std::string(key, size), *v);
            }
            return rc == SQLITE_DONE ? SQLITE_OK : rc;
        });
        for (const auto& [key, value] : unsaved) {
            if (value)
                out.insert_or_assign(key, *value);
            else
                out.erase(key);
        }
        return out;
    }
};

SqliteUserDefaults::SqliteUserDefaults(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
SqliteUserDefaults::~SqliteUserDefaults() = default;

std::shared_ptr<SqliteUserDefaults> SqliteUserDefaults::open(const std::filesystem::path& file) {
    return open(file, Options{});
}

std::shared_ptr<SqliteUserDefaults> SqliteUserDefaults::open(const std::filesystem::path& file,
                                                             const Options& options) {
    try {
        std::error_code ec;
        auto absolute = std::filesystem::absolute(file, ec);
        auto impl = std::make_unique<Impl>(ec ? file : absolute, options);
        if (!impl->connect()) return nullptr;
        return std::shared_ptr<SqliteUserDefaults>(new SqliteUserDefaults(std::move(impl)));
    } catch (const std::exception& e) {
        Console::print("UserDefaults: cannot open " + file.string() + ": " + e.what());
        return nullptr;
    }
}

const std::filesystem::path& SqliteUserDefaults::path() const { return impl_->file; }

std::optional<PlistValue> SqliteUserDefaults::object(std::string_view key) {
    try {
        std::lock_guard lock(impl_->mutex);
        return impl_->read(key);
    } catch (...) {
        return std::nullopt;
    }
}

void SqliteUserDefaults::set(std::string_view key, const PlistValue& value) {
    try {
        std::lock_guard lock(impl_->mutex);
        impl_->write(key, value.isNull() ? nullptr : &value);
    } catch (const std::exception& e) {
        Console::print("UserDefaults: cannot save \"" + std::string(key) + "\": " + e.what());
    } catch (...) {
    }
}

void SqliteUserDefaults::removeObject(std::string_view key) {
    try {
        std::lock_guard lock(impl_->mutex);
        impl_->write(key, nullptr);
    } catch (const std::exception& e) {
        Console::print("UserDefaults: cannot remove \"" + std::string(key) + "\": " + e.what());
    } catch (...) {
    }
}

void SqliteUserDefaults::update(std::string_view key, const Updater& fn) {
    if (!fn) return;
    std::string name(key);
    update({name}, [&](Values& values) {
        auto& value = values[name];
        value = fn(std::move(value));
    });
}

void SqliteUserDefaults::update(const std::vector<std::string>& keys, const BatchUpdater& fn) {
    if (!fn) return;
    std::string what;
    try {
        for (const auto& key : keys) what += (what.empty() ? "" : ", ") + key;
        std::lock_guard lock(impl_->mutex);
        impl_->update(keys, fn, what);
    } catch (const std::exception& e) {
        Console::print("UserDefaults: update of \"" + what + "\" failed: " + e.what());
    } catch (...) {
    }
}

PlistDictionary SqliteUserDefaults::dictionaryRepresentation() {
    try {
        std::lock_guard lock(impl_->mutex);
        return impl_->all();
    } catch (...) {
        return {};
    }
}

bool SqliteUserDefaults::synchronize() {
    try {
        std::lock_guard lock(impl_->mutex);
        return impl_->unsaved.empty();
    } catch (...) {
        return false;
    }
}

}  // namespace tessrakite::platform
