#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/UserDefaults.hpp>

namespace tessrakite::platform {

/// The UserDefaults of the headless platform: one SQLite database in WAL mode, shared by
/// every process that opens the same file. One connection per store, guarded by a
/// mutex; reads come from a cache that is dropped as soon as another connection commits.
/// Layout, encoding and failure behaviour: docs/storage.md.
///
/// Processes must open their own store: a store (like any SQLite connection) must not be
/// used on both sides of a fork().
class TESSRA_EXPORT SqliteUserDefaults final : public UserDefaults {
public:
    struct Options {
        /// How long a write, or a read during another process's recovery, waits for the
        /// database lock before it gives up.
        std::chrono::milliseconds busyTimeout{10'000};
        /// Skip the data-version query while the WAL index header in the -shm file is
        /// unchanged. Off: every read asks SQLite (about 2 system calls per read).
        bool walHeaderPrecheck = true;
    };

    /// Opens or creates the database at `file` (and its folder, mode 0700). A file that
    /// is not a readable database is moved aside and replaced by an empty one. Nothing
    /// when the file cannot be opened or created; a console line says why.
    static std::shared_ptr<SqliteUserDefaults> open(const std::filesystem::path& file);
    static std::shared_ptr<SqliteUserDefaults> open(const std::filesystem::path& file, const Options& options);

    ~SqliteUserDefaults() override;
    SqliteUserDefaults(const SqliteUserDefaults&) = delete;
    SqliteUserDefaults& operator=(const SqliteUserDefaults&) = delete;

    std::optional<PlistValue> object(std::string_view key) override;
    /// Setting null removes the key.
    void set(std::string_view key, const PlistValue& value) override;
    void removeObject(std::string_view key) override;
    /// `fn` runs inside the write transaction and under the store's lock: it must not use
    /// this store.
    void update(std::string_view key, const Updater& fn) override;
    /// As above: one transaction for all of `keys`.
    void update(const std::vector<std::string>& keys, const BatchUpdater& fn) override;
    PlistDictionary dictionaryRepresentation() override;
    /// False while a write of this process could not be saved (its value is then only
    /// visible in this process).
    bool synchronize() override;

    const std::filesystem::path& path() const;

private:
    struct Impl;
    explicit SqliteUserDefaults(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

}  // namespace tessrakite::platform
