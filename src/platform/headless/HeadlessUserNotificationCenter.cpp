#include <tessrakite/platform/headless/HeadlessPlatform.hpp>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <thread>

#include <sqlite3.h>

#include <tessrakite/platform/Bundle.hpp>
#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/FileRoots.hpp>

#include "platform/SqliteFile.hpp"
#include "platform/StoredValue.hpp"

namespace tessrakite::platform::headless {
namespace {

using nlohmann::ordered_json;
using namespace std::chrono_literals;

constexpr const char* kLabel = "UserNotificationCenter";

// seq is the generation of a request: AUTOINCREMENT never hands a number out twice, so a
// replaced request (deleted and inserted again) gets a new one in every process.
constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS pending("
    " seq INTEGER PRIMARY KEY AUTOINCREMENT, identifier TEXT NOT NULL UNIQUE, content BLOB NOT NULL,"
    " interval REAL NOT NULL, repeats INTEGER NOT NULL, fire_at REAL NOT NULL);"
    "CREATE TABLE IF NOT EXISTS delivered("
    " seq INTEGER PRIMARY KEY AUTOINCREMENT, identifier TEXT NOT NULL UNIQUE, date REAL NOT NULL,"
    " content BLOB NOT NULL, interval REAL, repeats INTEGER);"
    "CREATE TABLE IF NOT EXISTS categories("
    " position INTEGER PRIMARY KEY, identifier TEXT NOT NULL, category BLOB NOT NULL);";

// Every statement the centre runs reads these columns; a table without them is not ours.
constexpr const char* kShapeChecks[] = {
    "SELECT seq, identifier, content, interval, repeats, fire_at FROM pending LIMIT 0",
    "SELECT seq, identifier, date, content, interval, repeats FROM delivered LIMIT 0",
    "SELECT position, identifier, category FROM categories LIMIT 0",
};

// A timer that fires this close before its time counts as due (the run loop adds the
// delay to a clock reading of its own).
constexpr double kSlack = 0.001;

constexpr std::chrono::milliseconds kBusyTimeout{10'000};

class Statement {
public:
    Statement(sqlite3* db, const char* sql) {
        rc_ = db ? sqlite3_prepare_v2(db, sql, -1, &s_, nullptr) : SQLITE_CANTOPEN;
    }
    ~Statement() { sqlite3_finalize(s_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    Statement& text(int i, std::string_view v) {
        if (s_) sqlite3_bind_text64(s_, i, v.data() ? v.data() : "", v.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
        return *this;
    }
    Statement& blob(int i, const std::string& v) {
        if (s_) sqlite3_bind_blob64(s_, i, v.data(), v.size(), SQLITE_TRANSIENT);
        return *this;
    }
    Statement& real(int i, double v) {
        if (s_) sqlite3_bind_double(s_, i, v);
        return *this;
    }
    Statement& integer(int i, std::int64_t v) {
        if (s_) sqlite3_bind_int64(s_, i, v);
        return *this;
    }
    int step() { return rc_ != SQLITE_OK ? rc_ : sqlite3_step(s_); }
    /// Runs a statement that returns no rows.
    int run() {
        int rc = step();
        return rc == SQLITE_DONE || rc == SQLITE_ROW ? SQLITE_OK : rc;
    }

    std::string columnText(int i) const {
        const auto* t = reinterpret_cast<const char*>(sqlite3_column_text(s_, i));
        return t ? std::string(t, static_cast<std::size_t>(sqlite3_column_bytes(s_, i))) : std::string();
    }
    std::string columnBlob(int i) const {
        const auto* b = static_cast<const char*>(sqlite3_column_blob(s_, i));
        return b ? std::string(b, static_cast<std::size_t>(sqlite3_column_bytes(s_, i))) : std::string();
    }
    double columnReal(int i) const { return sqlite3_column_double(s_, i); }
    std::int64_t columnInteger(int i) const { return sqlite3_column_int64(s_, i); }
    bool columnIsNull(int i) const { return sqlite3_column_type(s_, i) == SQLITE_NULL; }

private:
    sqlite3_stmt* s_ = nullptr;
    int rc_ = SQLITE_OK;
};

// ---- the stored form: property-list dictionaries in the store's blob encoding ----

std::string stringIn(const PlistDictionary& d, std::string_view key) {
    auto it = d.find(key);
    const std::string* s = it == d.end() ? nullptr : it->second.asString();
    return s ? *s : std::string();
}

std::int64_t integerIn(const PlistDictionary& d, std::string_view key) {
    auto it = d.find(key);
    const std::int64_t* i = it == d.end() ? nullptr : it->second.asInteger();
    return i ? *i : 0;
}

const PlistArray& arrayIn(const PlistDictionary& d, std::string_view key) {
    static const PlistArray empty;
    auto it = d.find(key);
    const PlistArray* a = it == d.end() ? nullptr : it->second.asArray();
    return a ? *a : empty;
}

const PlistDictionary& dictionaryIn(const PlistDictionary& d, std::string_view key) {
    static const PlistDictionary empty;
    auto it = d.find(key);
    const PlistDictionary* x = it == d.end() ? nullptr : it->second.asDictionary();
    return x ? *x : empty;
}

std::optional<std::string> encode(PlistDictionary d) { return stored::encodeBlob(PlistValue(std::move(d))); }

std::optional<PlistDictionary> decode(const std::string& blob) {
    auto v = stored::decodeBlob(blob.data(), blob.size());
    if (!v || !v->asDictionary()) return std::nullopt;
    return std::move(*v->asDictionary());
}

PlistDictionary contentDictionary(const UNNotificationContent& c) {
    PlistArray attachments;
    for (const auto& a : c.attachments)
        attachments.emplace_back(PlistDictionary{{"identifier", a.identifier}, {"url", a.url}, {"options", a.options}});
    PlistDictionary d{{"title", c.title},
                      {"subtitle", c.subtitle},
                      {"body", c.body},
                      {"categoryIdentifier", c.categoryIdentifier},
                      {"threadIdentifier", c.threadIdentifier},
                      {"userInfo", c.userInfo},
                      {"attachments", std::move(attachments)}};
    if (c.sound) d["sound"] = *c.sound;
    if (c.badge) d["badge"] = static_cast<long long>(*c.badge);
    return d;
}

UNNotificationContent contentFrom(const PlistDictionary& d) {
    UNNotificationContent c;
    c.title = stringIn(d, "title");
    c.subtitle = stringIn(d, "subtitle");
    c.body = stringIn(d, "body");
    if (auto it = d.find("sound"); it != d.end() && it->second.asString()) c.sound = *it->second.asString();
    if (auto it = d.find("badge"); it != d.end() && it->second.asInteger()) c.badge = *it->second.asInteger();
    c.categoryIdentifier = stringIn(d, "categoryIdentifier");
    c.threadIdentifier = stringIn(d, "threadIdentifier");
    c.userInfo = dictionaryIn(d, "userInfo");
    for (const auto& a : arrayIn(d, "attachments")) {
        if (!a.asDictionary()) continue;
        const auto& x = *a.asDictionary();
        c.attachments.push_back({stringIn(x, "identifier"), stringIn(x, "url"), dictionaryIn(x, "options")});
    }
    return c;
}

PlistDictionary categoryDictionary(const UNNotificationCategory& c) {
    PlistArray actions;
    for (const auto& a : c.actions)
        actions.emplace_back(PlistDictionary{{"identifier", a.identifier}, {"title", a.title}, {"options", a.options}});
    PlistArray intents(c.intentIdentifiers.begin(), c.intentIdentifiers.end());
    return {{"identifier", c.identifier},
            {"actions", std::move(actions)},
            {"intentIdentifiers", std::move(intents)},
            {"options", c.options}};
}

UNNotificationCategory categoryFrom(const PlistDictionary& d) {
    UNNotificationCategory c;
    c.identifier = stringIn(d, "identifier");
    for (const auto& a : arrayIn(d, "actions")) {
        if (!a.asDictionary()) continue;
        const auto& x = *a.asDictionary();
        c.actions.push_back({stringIn(x, "identifier"), stringIn(x, "title"),
                             static_cast<unsigned>(integerIn(x, "options"))});
    }
    for (const auto& i : arrayIn(d, "intentIdentifiers"))
        if (i.asString()) c.intentIdentifiers.push_back(*i.asString());
    c.options = static_cast<unsigned>(integerIn(d, "options"));
    return c;
}

std::optional<std::string> usableIdentifier(std::optional<std::string> id) {
    // The identifier names a folder.
    if (!id || id->empty() || *id == "." || *id == ".." || id->find('/') != std::string::npos) return std::nullopt;
    return id;
}

// The application whose notifications this process sees: the main bundle, or for an
// extension (App.app/PlugIns/X.appex) the application that contains it.
std::optional<std::string> applicationIdentifier() {
    auto main = Bundle::main();
    if (!main) return std::nullopt;
    if (auto application = Bundle::containingApplication(*main))
        if (auto id = usableIdentifier(application->bundleIdentifier())) return id;
    return usableIdentifier(main->bundleIdentifier());
}

}  // namespace

// The state shared with the other processes of the application, and this process's
// timers for it. Queued answers and timers hold it, not the centre.
struct HeadlessUserNotificationCenter::Shared : std::enable_shared_from_this<Shared> {
    using Opened = sqlitefile::Opened;

    Shared(std::shared_ptr<Effects> e, std::shared_ptr<RunLoop> r, std::shared_ptr<Clock> c)
        : effects(std::move(e)), runLoop(std::move(r)), clock(std::move(c)) {}
    ~Shared() { disconnect(); }
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;

    std::shared_ptr<Effects> effects;
    std::shared_ptr<RunLoop> runLoop;
    std::shared_ptr<Clock> clock;

    std::mutex observerMutex;  // apart from `mutex`: the observer runs with neither held
    std::shared_ptr<DeliveryObserver> observer;

    std::shared_ptr<DeliveryObserver> currentObserver() {
        std::lock_guard lock(observerMutex);
        return observer;
    }

    std::mutex mutex;
    bool opened = false;
    std::filesystem::path file;  // empty: in memory
    sqlite3* db = nullptr;
    sqlitefile::BusyWait busy{kBusyTimeout, {}};
    sqlitefile::FileIdentity identity;
    // The timer chain this process runs per request: identifier -> generation (seq).
    std::map<std::string, std::int64_t> armed;

    // ---- connection (caller holds the mutex) ----

    std::string lastError(int rc) const { return db ? sqlite3_errmsg(db) : sqlite3_errstr(rc); }

    Opened classify(int rc, std::string& why) const {
        why = lastError(rc);
        if (sqlitefile::isCorruption(rc)) return Opened::corrupt;
        const int primary = rc & 0xff;
        return primary == SQLITE_BUSY || primary == SQLITE_LOCKED ? Opened::busy : Opened::failed;
    }

    int exec(const char* sql) { return db ? sqlite3_exec(db, sql, nullptr, nullptr, nullptr) : SQLITE_CANTOPEN; }

    Opened tryConnect(std::string& why) {
        if (!sqlitefile::createPrivateFile(file, identity, why)) return Opened::failed;
        int rc = sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                                 nullptr);
        if (rc != SQLITE_OK) return classify(rc, why);
        sqlite3_extended_result_codes(db, 1);
        sqlite3_busy_handler(db, sqlitefile::busyHandler, &busy);
        for (const char* sql : {"PRAGMA journal_mode=WAL", "PRAGMA synchronous=NORMAL", kSchema})
            if ((rc = exec(sql)) != SQLITE_OK) return classify(rc, why);
        // The file is small; checking every page at open finds damage before a read trips on it.
        Statement check(db, "PRAGMA quick_check(1)");
        if ((rc = check.step()) != SQLITE_ROW) return classify(rc, why);
        if (check.columnText(0) != "ok") {
            why = check.columnText(0);
            return Opened::corrupt;
        }
        for (const char* sql : kShapeChecks) {
            Statement shape(db, sql);
            if ((rc = shape.step()) == SQLITE_DONE) continue;
            if ((rc & 0xff) != SQLITE_ERROR) return classify(rc, why);
            why = "its tables are not the notification centre's: " + lastError(rc);
            return Opened::corrupt;
        }
        return Opened::ok;
    }

    bool connect() {
        std::string why;
        const Opened result = sqlitefile::openWithRecovery(
            [this](std::string& w) { return tryConnect(w); }, [this] { disconnect(); },
            kBusyTimeout, file, identity, kLabel, why);
        if (result == Opened::ok) return true;
        disconnect();
        Console::print(std::string(kLabel) + ": cannot open " + file.string() + " (" + why +
                       "); notifications are kept in this process only");
        return false;
    }

    // This process's notifications only, for want of a file.
    void openInMemory() {
        file.clear();
        if (sqlite3_open_v2(":memory:", &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                            nullptr) != SQLITE_OK ||
            exec(kSchema) != SQLITE_OK)
            disconnect();
    }

    void disconnect() {
        if (db) sqlite3_close_v2(db);
        db = nullptr;
    }

    void ensureOpen() {
        if (opened) return;
        opened = true;
        if (auto id = applicationIdentifier()) {
            file = FileRoots::appFolder(*id) / "notifications.sqlite";
            if (!connect()) openInMemory();
        } else {
            Console::print(std::string(kLabel) +
                           ": the main bundle has no bundle identifier; notifications are kept in this process only");
            openInMemory();
        }
        armStored();
    }

    // Requests another process scheduled fire from this process's run loop too; whichever
    // process comes first delivers (see fire).
    void armStored() {
        Statement s(db, "SELECT identifier, seq, fire_at FROM pending ORDER BY seq");
        while (s.step() == SQLITE_ROW) arm(s.columnText(0), s.columnInteger(1), s.columnReal(2));
    }

    // Runs `op` (an SQLite result code). When it found the file damaged, moves it aside,
    // starts afresh and runs it once more. A failure is reported once, as `what`.
    template <class Op>
    bool run(const std::string& what, Op op) {
        ensureOpen();
        int rc = op();
        if (sqlitefile::isCorruption(rc) && !file.empty()) {
            std::string why = lastError(rc);
            disconnect();
            sqlitefile::moveAside(file, identity, why, kLabel);
            if (!connect()) openInMemory();
            rc = op();
        }
        if (rc == SQLITE_OK) return true;
        Console::print(std::string(kLabel) + ": cannot " + what + ": " + lastError(rc));
        return false;
    }

    // One immediate transaction: another process's change lands wholly before or after.
    template <class Body>
    int transaction(Body body) {
        int rc = exec("BEGIN IMMEDIATE");
        if (rc != SQLITE_OK) return rc;
        rc = body();
        if (rc == SQLITE_OK) rc = exec("COMMIT");
        if (rc != SQLITE_OK && db && !sqlite3_get_autocommit(db)) exec("ROLLBACK");
        return rc;
    }

    void arm(const std::string& identifier, std::int64_t seq, double fireAt) {
        armed[identifier] = seq;
        double delay = std::max(0.0, fireAt - clock->now());
        std::weak_ptr<Shared> weak = weak_from_this();
        runLoop->asyncAfter(delay, [weak, identifier, seq] {
            if (auto self = weak.lock()) self->fire(identifier, seq);
        });
    }

    int putDelivered(const std::string& identifier, double date, const std::string& content,
                     const std::optional<UNTimeIntervalNotificationTrigger>& trigger) {
        int rc = Statement(db, "DELETE FROM delivered WHERE identifier = ?1").text(1, identifier).run();
        if (rc != SQLITE_OK) return rc;
        Statement insert(db, "INSERT INTO delivered(identifier, date, content, interval, repeats) "
                             "VALUES(?1, ?2, ?3, ?4, ?5)");
        insert.text(1, identifier).real(2, date).blob(3, content);
        if (trigger) insert.real(4, trigger->timeInterval).integer(5, trigger->repeats ? 1 : 0);
        return insert.run();
    }

    // ---- operations ----

    bool schedule(const std::string& identifier, const std::string& content, UNTimeIntervalNotificationTrigger trigger) {
        std::lock_guard lock(mutex);
        const double fireAt = clock->now() + std::max(0.0, trigger.timeInterval);
        std::int64_t seq = 0;
        bool ok = run("schedule \"" + identifier + "\"", [&] {
            return transaction([&] {
                int rc = Statement(db, "DELETE FROM pending WHERE identifier = ?1").text(1, identifier).run();
                if (rc != SQLITE_OK) return rc;
                rc = Statement(db, "INSERT INTO pending(identifier, content, interval, repeats, fire_at) "
                                   "VALUES(?1, ?2, ?3, ?4, ?5)")
                         .text(1, identifier)
                         .blob(2, content)
                         .real(3, trigger.timeInterval)
                         .integer(4, trigger.repeats ? 1 : 0)
                         .real(5, fireAt)
                         .run();
                seq = sqlite3_last_insert_rowid(db);
                return rc;
            });
        });
        if (ok) arm(identifier, seq, fireAt);
        return ok;
    }

    // A request without a trigger: delivered now, replacing a pending one of the same name.
    bool deliverNow(const std::string& identifier, const std::string& content) {
        std::lock_guard lock(mutex);
        const double now = clock->now();
        bool ok = run("deliver \"" + identifier + "\"", [&] {
            return transaction([&] {
                int rc = Statement(db, "DELETE FROM pending WHERE identifier = ?1").text(1, identifier).run();
                return rc == SQLITE_OK ? putDelivered(identifier, now, content, std::nullopt) : rc;
            });
        });
        if (ok) armed.erase(identifier);
        return ok;
    }

    // A timer of this process came due. The transaction decides whether it still stands:
    // the request may have been removed or replaced, or delivered by another process
    // (which moved its fire time on).
    void fire(const std::string& identifier, std::int64_t seq) {
        std::optional<UNNotificationRequest> shown;
        {
            std::lock_guard lock(mutex);
            if (auto it = armed.find(identifier); it == armed.end() || it->second != seq) return;
            const double now = clock->now();
            std::optional<std::pair<std::int64_t, double>> next;  // the timer to run next
            bool ok = run("deliver \"" + identifier + "\"", [&] {
                shown.reset();
                next.reset();
                return transaction([&] {
                    Statement row(db, "SELECT seq, content, interval, repeats, fire_at FROM pending "
                                      "WHERE identifier = ?1");
                    int rc = row.text(1, identifier).step();
                    if (rc == SQLITE_DONE) return SQLITE_OK;  // removed
                    if (rc != SQLITE_ROW) return rc;
                    const std::int64_t rowSeq = row.columnInteger(0);
                    const std::string content = row.columnBlob(1);
                    const UNTimeIntervalNotificationTrigger trigger{row.columnReal(2), row.columnInteger(3) != 0};
                    const double fireAt = row.columnReal(4);
                    if (rowSeq != seq || fireAt > now + kSlack) {
                        // Replaced by another process, or already delivered there.
                        next = {rowSeq, fireAt};
                        return SQLITE_OK;
                    }
                    auto decoded = decode(content);
                    if (!decoded)  // an unreadable row is dropped, never shown
                        return Statement(db, "DELETE FROM pending WHERE seq = ?1").integer(1, seq).run();
                    if (trigger.repeats && trigger.timeInterval > 0) {
                        // Missed repeats are not made up for: at most one delivery per turn.
                        double nextFire = fireAt + trigger.timeInterval;
                        if (nextFire <= now) nextFire = now + trigger.timeInterval;
                        rc = Statement(db, "UPDATE pending SET fire_at = ?2 WHERE seq = ?1")
                                 .integer(1, seq)
                                 .real(2, nextFire)
                                 .run();
                        next = {seq, nextFire};
                    } else {
                        rc = Statement(db, "DELETE FROM pending WHERE seq = ?1").integer(1, seq).run();
                    }
                    if (rc != SQLITE_OK) return rc;
                    rc = putDelivered(identifier, now, content, trigger);
                    shown = UNNotificationRequest{identifier, contentFrom(*decoded), trigger};
                    return rc;
                });
            });
            if (ok && next)
                arm(identifier, next->first, next->second);
            else
                armed.erase(identifier);
            if (!ok) shown.reset();
        }
        if (shown) {
            effects->emit("notificationDelivered", {{"identifier", identifier}, {"content", toJSON(shown->content)}});
            if (auto o = currentObserver()) o->delivered(*shown);
        }
    }

    // Removes the named requests (all when `identifiers` is nothing); returns the names
    // removed when all go.
    std::vector<std::string> remove(const char* table, const std::optional<std::vector<std::string>>& identifiers) {
        std::lock_guard lock(mutex);
        std::vector<std::string> removed;
        const std::string name = table;
        run("remove " + (name == "pending" ? std::string("pending requests") : "delivered notifications"), [&] {
            removed.clear();
            return transaction([&] {
                if (identifiers) {
                    for (const auto& id : *identifiers) {
                        int rc = Statement(db, ("DELETE FROM " + name + " WHERE identifier = ?1").c_str())
                                     .text(1, id)
                                     .run();
                        if (rc != SQLITE_OK) return rc;
                    }
                    return SQLITE_OK;
                }
                Statement all(db, ("SELECT identifier FROM " + name + " ORDER BY seq").c_str());
                int rc;
                while ((rc = all.step()) == SQLITE_ROW) removed.push_back(all.columnText(0));
                if (rc != SQLITE_DONE) return rc;
                return exec(("DELETE FROM " + name).c_str());
            });
        });
        if (name == "pending") {
            if (identifiers)
                for (const auto& id : *identifiers) armed.erase(id);
            else
                armed.clear();
        }
        return identifiers ? *identifiers : removed;
    }

    void setCategories(const std::vector<UNNotificationCategory>& categories) {
        std::lock_guard lock(mutex);
        run("set the categories", [&] {
            return transaction([&] {
                int rc = exec("DELETE FROM categories");
                std::int64_t position = 0;
                for (const auto& c : categories) {
                    if (rc != SQLITE_OK) break;
                    auto blob = encode(categoryDictionary(c));
                    if (!blob) continue;
                    rc = Statement(db, "INSERT INTO categories(position, identifier, category) VALUES(?1, ?2, ?3)")
                             .integer(1, position++)
                             .text(2, c.identifier)
                             .blob(3, *blob)
                             .run();
                }
                return rc;
            });
        });
    }

    // ---- reads: always from the file, so changes of other processes show at once ----

    template <class Row>
    void select(const char* what, const char* sql, Row row) {
        std::lock_guard lock(mutex);
        run(what, [&] {
            Statement s(db, sql);
            int rc;
            while ((rc = s.step()) == SQLITE_ROW) row(s);
            return rc == SQLITE_DONE ? SQLITE_OK : rc;
        });
    }

    std::vector<UNNotificationRequest> pending() {
        std::vector<UNNotificationRequest> out;
        select("read the pending requests", "SELECT identifier, content, interval, repeats FROM pending ORDER BY seq",
               [&](Statement& s) {
                   if (auto content = decode(s.columnBlob(1)))
                       out.push_back({s.columnText(0), contentFrom(*content),
                                      UNTimeIntervalNotificationTrigger{s.columnReal(2), s.columnInteger(3) != 0}});
               });
        return out;
    }

    std::vector<UNNotification> delivered() {
        std::vector<UNNotification> out;
        select("read the delivered notifications",
               "SELECT identifier, date, content, interval, repeats FROM delivered ORDER BY seq", [&](Statement& s) {
                   auto content = decode(s.columnBlob(2));
                   if (!content) return;
                   UNNotification n{s.columnReal(1), {s.columnText(0), contentFrom(*content), std::nullopt}};
                   if (!s.columnIsNull(3))
                       n.request.trigger = UNTimeIntervalNotificationTrigger{s.columnReal(3), s.columnInteger(4) != 0};
                   out.push_back(std::move(n));
               });
        return out;
    }

    std::vector<UNNotificationCategory> categories() {
        std::vector<UNNotificationCategory> out;
        select("read the categories", "SELECT category FROM categories ORDER BY position", [&](Statement& s) {
            if (auto category = decode(s.columnBlob(0))) out.push_back(categoryFrom(*category));
        });
        return out;
    }
};

HeadlessUserNotificationCenter::HeadlessUserNotificationCenter(std::shared_ptr<Effects> effects,
                                                               std::shared_ptr<RunLoop> runLoop,
                                                               std::shared_ptr<Clock> clock,
                                                               std::shared_ptr<SerialQueue> answerQueue)
    : effects_(std::move(effects)),
      runLoop_(std::move(runLoop)),
      clock_(std::move(clock)),
      answerQueue_(std::move(answerQueue)),
      shared_(std::make_shared<Shared>(effects_, runLoop_, clock_)),
      queries_(std::make_shared<SerialQueue>("tessrakite.notifications")) {
    std::weak_ptr<SerialQueue> weak = queries_;
    runLoop_->addBusySource([weak] {
        auto q = weak.lock();
        return q && q->pending() > 0;
    });
}

HeadlessUserNotificationCenter::~HeadlessUserNotificationCenter() = default;

void HeadlessUserNotificationCenter::requestAuthorization(
    unsigned options, std::function<void(bool, std::optional<std::string>)> completion) {
    bool granted;
    {
        std::lock_guard lock(mutex_);
        lastOptions_ = options;
        granted = answerGranted_;
        status_ = answerStatus_;
    }
    effects_->emit("requestAuthorization", {{"options", options}, {"granted", granted}});
    if (!completion) return;
    auto answer = [completion, granted] { completion(granted, std::nullopt); };
    if (answerQueue_)
        answerQueue_->async(answer);
    else
        runLoop_->async(answer);
}

void HeadlessUserNotificationCenter::getNotificationSettings(std::function<void(UNNotificationSettings)> completion) {
    if (!completion) return;
    UNNotificationSettings settings;
    {
        std::lock_guard lock(mutex_);
        settings.authorizationStatus = status_;
    }
    queries_->async([completion, settings] { completion(settings); });
}

ordered_json HeadlessUserNotificationCenter::toJSON(const std::optional<UNTimeIntervalNotificationTrigger>& trigger) {
    if (!trigger) return nullptr;
    return {{"interval", trigger->timeInterval}, {"repeats", trigger->repeats}};
}

ordered_json HeadlessUserNotificationCenter::toJSON(const UNNotificationContent& content) {
    ordered_json attachments = ordered_json::array();
    for (const auto& a : content.attachments) attachments.push_back({{"identifier", a.identifier}, {"url", a.url}});
    ordered_json userInfo = ordered_json::object();
    try {
        userInfo = PlistValue(content.userInfo).toJSON();
    } catch (const std::exception&) {
        userInfo = "<not JSON>";
    }
    return {{"title", content.title},
            {"subtitle", content.subtitle},
            {"body", content.body},
            {"sound", content.sound ? ordered_json(*content.sound) : ordered_json(nullptr)},
            {"badge", content.badge ? ordered_json(*content.badge) : ordered_json(nullptr)},
            {"categoryIdentifier", content.categoryIdentifier},
            {"userInfo", userInfo},
            {"attachments", attachments}};
}

void HeadlessUserNotificationCenter::add(UNNotificationRequest request,
                                         std::function<void(std::optional<std::string>)> completion) {
    const ordered_json content = toJSON(request.content);
    effects_->emit("notificationAdded",
                   {{"identifier", request.identifier}, {"content", content}, {"trigger", toJSON(request.trigger)}});
    std::optional<std::string> error;
    auto blob = encode(contentDictionary(request.content));
    if (!blob) {
        error = "the content of \"" + request.identifier + "\" is nested too deeply to be kept";
        Console::print(std::string(kLabel) + ": " + *error);
    } else if (request.trigger) {
        if (!shared_->schedule(request.identifier, *blob, *request.trigger))
            error = "the request \"" + request.identifier + "\" could not be saved";
    } else if (shared_->deliverNow(request.identifier, *blob)) {
        effects_->emit("notificationDelivered", {{"identifier", request.identifier}, {"content", content}});
        if (auto o = shared_->currentObserver()) o->delivered(request);
    } else {
        error = "the notification \"" + request.identifier + "\" could not be saved";
    }
    if (completion) runLoop_->async([completion, error] { completion(error); });
}

void HeadlessUserNotificationCenter::getPendingNotificationRequests(
    std::function<void(std::vector<UNNotificationRequest>)> completion) {
    if (completion) queries_->async([shared = shared_, completion] { completion(shared->pending()); });
}

void HeadlessUserNotificationCenter::removePendingNotificationRequests(const std::vector<std::string>& identifiers) {
    shared_->remove("pending", identifiers);
    effects_->emit("removedPending", {{"identifiers", identifiers}});
}

void HeadlessUserNotificationCenter::removeAllPendingNotificationRequests() {
    effects_->emit("removedPending", {{"identifiers", shared_->remove("pending", std::nullopt)}});
}

void HeadlessUserNotificationCenter::getDeliveredNotifications(
    std::function<void(std::vector<UNNotification>)> completion) {
    if (completion) queries_->async([shared = shared_, completion] { completion(shared->delivered()); });
}

void HeadlessUserNotificationCenter::removeDeliveredNotifications(const std::vector<std::string>& identifiers) {
    shared_->remove("delivered", identifiers);
    effects_->emit("removedDelivered", {{"identifiers", identifiers}});
    if (auto o = shared_->currentObserver()) o->removed(identifiers);
}

void HeadlessUserNotificationCenter::removeAllDeliveredNotifications() {
    const auto removed = shared_->remove("delivered", std::nullopt);
    effects_->emit("removedDelivered", {{"identifiers", removed}});
    if (auto o = shared_->currentObserver()) o->removed(removed);
}

void HeadlessUserNotificationCenter::setNotificationCategories(std::vector<UNNotificationCategory> categories) {
    std::vector<std::string> ids;
    for (const auto& c : categories) ids.push_back(c.identifier);
    shared_->setCategories(categories);
    effects_->emit("categoriesSet", {{"identifiers", ids}});
}

void HeadlessUserNotificationCenter::getNotificationCategories(
    std::function<void(std::vector<UNNotificationCategory>)> completion) {
    if (completion) queries_->async([shared = shared_, completion] { completion(shared->categories()); });
}

void HeadlessUserNotificationCenter::setAuthorizationAnswer(bool granted, UNAuthorizationStatus status) {
    std::lock_guard lock(mutex_);
    answerGranted_ = granted;
    answerStatus_ = status;
}

void HeadlessUserNotificationCenter::setAuthorizationStatus(UNAuthorizationStatus status) {
    std::lock_guard lock(mutex_);
    status_ = status;
}

std::vector<UNNotificationRequest> HeadlessUserNotificationCenter::pending() const { return shared_->pending(); }

std::vector<UNNotification> HeadlessUserNotificationCenter::delivered() const { return shared_->delivered(); }

std::vector<UNNotificationCategory> HeadlessUserNotificationCenter::categories() const {
    return shared_->categories();
}

std::optional<unsigned> HeadlessUserNotificationCenter::lastAuthorizationOptions() const {
    std::lock_guard lock(mutex_);
    return lastOptions_;
}

void HeadlessUserNotificationCenter::setDeliveryObserver(std::shared_ptr<DeliveryObserver> observer) {
    std::lock_guard lock(shared_->observerMutex);
    shared_->observer = std::move(observer);
}

}  // namespace tessrakite::platform::headless
