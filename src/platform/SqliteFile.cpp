#include "platform/SqliteFile.hpp"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <algorithm>
#include <thread>

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/FileRoots.hpp>

namespace tessrakite::platform::sqlitefile {
namespace {

using namespace std::chrono_literals;

std::string asideName(const std::filesystem::path& file) {
    std::time_t now = std::time(nullptr);
    std::tm utc{};
    ::gmtime_r(&now, &utc);
    char stamp[32] = {};
    std::strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", &utc);
    std::string base = file.string() + ".corrupt-" + stamp;
    std::string name = base;
    std::error_code ec;
    for (int n = 2; std::filesystem::exists(name, ec); ++n) name = base + "-" + std::to_string(n);
    return name;
}

}  // namespace

bool isCorruption(int rc) {
    int primary = rc & 0xFF;
    return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

int busyHandler(void* context, int count) {
    auto* wait = static_cast<BusyWait*>(context);
    auto now = std::chrono::steady_clock::now();
    if (count == 0) wait->since = now;
    if (now - wait->since >= wait->timeout) return 0;
    // Waiting processes get their turn while the others are still busy, instead of
    // sleeping through the whole burst.
    std::this_thread::sleep_for(count < 20 ? 100us : count < 200 ? 1ms : 5ms);
    return 1;
}

bool createPrivateFile(const std::filesystem::path& file, FileIdentity& identity, std::string& why) {
    auto folder = file.parent_path();
    if (!folder.empty() && !FileRoots::ensureDirectory(folder)) {
        why = "cannot create the folder " + folder.string();
        return false;
    }
    int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        why = std::strerror(errno);
        return false;
    }
    struct stat st {};
    if (::fstat(fd, &st) == 0) {
        identity.device = st.st_dev;
        identity.inode = st.st_ino;
        if (st.st_mode & 077) ::fchmod(fd, st.st_mode & 0700);
    }
    ::close(fd);
    return true;
}

void moveAside(const std::filesystem::path& file, const FileIdentity& identity, const std::string& why,
               const std::string& label) {
    int dirfd = ::open(file.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirfd >= 0) ::flock(dirfd, LOCK_EX);
    struct stat st {};
    if (::stat(file.c_str(), &st) == 0 && st.st_dev == identity.device && st.st_ino == identity.inode) {
        std::string aside = asideName(file);
        std::error_code ec;
        std::filesystem::rename(file, aside, ec);
        if (ec) {
            Console::print(label + ": " + file.string() + " is unreadable (" + why +
                           ") and cannot be moved aside: " + ec.message());
        } else {
            // A WAL left next to a new database would be replayed into it.
            std::error_code ignored;
            for (const char* suffix : {"-wal", "-journal"})
                if (std::filesystem::exists(file.string() + suffix, ignored))
                    std::filesystem::rename(file.string() + suffix, aside + suffix, ignored);
            std::filesystem::remove(file.string() + "-shm", ignored);
            Console::print(label + ": " + file.string() + " was unreadable (" + why + "); moved it to " + aside +
                           " and started an empty store");
        }
    }
    if (dirfd >= 0) ::close(dirfd);  // releases the lock
}

Opened openWithRecovery(const std::function<Opened(std::string&)>& attempt, const std::function<void()>& disconnect,
                        std::chrono::milliseconds timeout, const std::filesystem::path& file,
                        const FileIdentity& identity, const std::string& label, std::string& why) {
    Opened result = attempt(why);
    const auto giveUp = std::chrono::steady_clock::now() + timeout;
    for (auto pause = std::chrono::milliseconds(1);
         result == Opened::busy && std::chrono::steady_clock::now() < giveUp;
         pause = std::min(pause * 2, std::chrono::milliseconds(50))) {
        disconnect();
        std::this_thread::sleep_for(pause);
        result = attempt(why);
    }
    if (result == Opened::corrupt) {
        disconnect();
        moveAside(file, identity, why, label);
        result = attempt(why);
    }
    return result;
}

}  // namespace tessrakite::platform::sqlitefile
