#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>

#include <sys/types.h>

namespace tessrakite::platform::sqlitefile {

/// SQLite reports a damaged file or one that is not a database.
bool isCorruption(int rc);

/// State of busyHandler for one connection.
struct BusyWait {
    std::chrono::milliseconds timeout;
    std::chrono::steady_clock::time_point since;
};

/// A busy handler (context: a BusyWait) that polls often at first. SQLite's default sleeps
/// in steps of up to 100 ms, while our transactions last microseconds.
int busyHandler(void* context, int count);

/// The file a connection was opened on, so that recovery never moves aside a database
/// another process has already put in its place.
struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;
};

/// Creates `file` and its folder (mode 0700) before SQLite opens it: SQLite gives the
/// -wal and -shm files the mode of the database, so all three stay private (0600). Takes
/// group and other bits off an existing file. False with `why` on failure.
bool createPrivateFile(const std::filesystem::path& file, FileIdentity& identity, std::string& why);

/// Renames a damaged database (and its WAL) out of the way, with one console line
/// starting with `label`. Under a lock on the folder, and only if the file is still
/// `identity`: when several processes find the damage, one moves it and the others use
/// its new database.
void moveAside(const std::filesystem::path& file, const FileIdentity& identity, const std::string& why,
               const std::string& label);

/// What one attempt to open and prepare a database came to.
enum class Opened { ok, corrupt, busy, failed };

/// Opens with `attempt`, retrying while it is busy and once after moving a damaged file
/// aside; `disconnect` closes what an attempt left open. Two processes opening a new file
/// at once race to switch it to WAL, and SQLite answers the loser "locked" without calling
/// the busy handler. `why` holds the last failure.
Opened openWithRecovery(const std::function<Opened(std::string& why)>& attempt, const std::function<void()>& disconnect,
                        std::chrono::milliseconds timeout, const std::filesystem::path& file,
                        const FileIdentity& identity, const std::string& label, std::string& why);

}  // namespace tessrakite::platform::sqlitefile
