#include "runtime/registry/registry_store.h"

#include <sqlite3.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <fstream>
#include <system_error>
#include <utility>

#include "runtime/common/machine_profile.h"
#include "runtime/common/strings.h"

namespace qlb::registry {
namespace {

constexpr const char* kFormatName = "qlb-registry";
constexpr int kFormatVersion = 1;
// A write that still finds the database locked after the busy timeout is tried again this many times.
constexpr int kWriteAttempts = 3;

// Enough for every key the product touches; the cache starts over when it grows past this.
constexpr std::size_t kKeyCacheLimit = 4096;

// Hive rows have fixed ids so that a path walk starts without a lookup. Key ids are never reused, so a
// key that is deleted and made again is told apart by its id.
std::int64_t HiveKeyId(Hive hive) {
    return static_cast<std::int64_t>(hive) + 1;
}

constexpr const char* kSchema = R"sql(
CREATE TABLE IF NOT EXISTS meta(name TEXT PRIMARY KEY, value TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS keys(
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    parent INTEGER NOT NULL,
    name TEXT NOT NULL,
    fold TEXT NOT NULL,
    stamp INTEGER NOT NULL DEFAULT 0,
    tree_stamp INTEGER NOT NULL DEFAULT 0,
    UNIQUE(parent, fold));
CREATE TABLE IF NOT EXISTS vals(
    id INTEGER PRIMARY KEY,
    key INTEGER NOT NULL,
    name TEXT NOT NULL,
    fold TEXT NOT NULL,
    type INTEGER NOT NULL,
    data,
    UNIQUE(key, fold));
INSERT OR IGNORE INTO keys(id, parent, name, fold) VALUES
    (1, 0, 'HKEY_CLASSES_ROOT', 'HKEY_CLASSES_ROOT'),
    (2, 0, 'HKEY_CURRENT_USER', 'HKEY_CURRENT_USER'),
    (3, 0, 'HKEY_LOCAL_MACHINE', 'HKEY_LOCAL_MACHINE'),
    (4, 0, 'HKEY_USERS', 'HKEY_USERS'),
    (6, 0, 'HKEY_CURRENT_CONFIG', 'HKEY_CURRENT_CONFIG');
INSERT OR IGNORE INTO meta(name, value) VALUES ('format', 'qlb-registry'), ('version', '1');
)sql";

std::string Utf8(std::wstring_view text) {
    return DE::UnicodeToANSI(text);
}

bool IsTextType(DWORD type) {
    return type == REG_SZ || type == kRegExpandSz || type == kRegMultiSz;
}
bool IsNumberType(DWORD type) {
    return type == REG_DWORD || type == kRegQword;
}

// A file with content must start with the SQLite header before it is handed to SQLite at all.
SysStatus CheckExistingFile(const std::filesystem::path& file) {
    std::error_code ec;
    const auto status = std::filesystem::status(file, ec);
    if (ec || status.type() == std::filesystem::file_type::not_found) {
        return SysStatus::Ok();
    }
    if (status.type() != std::filesystem::file_type::regular) {
        return SysStatus::Fail(win::ERROR_BADDB);
    }
    if (std::filesystem::file_size(file, ec) == 0 || ec) {
        return SysStatus::Ok();
    }
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        return SysStatus::Fail(win::ERROR_ACCESS_DENIED);
    }
    std::array<char, 16> header{};
    in.read(header.data(), header.size());
    if (in.gcount() != static_cast<std::streamsize>(header.size()) ||
        std::memcmp(header.data(), "SQLite format 3", header.size()) != 0) {
        return SysStatus::Fail(win::ERROR_BADDB);
    }
    return SysStatus::Ok();
}

std::uint32_t ErrorOfSqlite(int rc) {
    switch (rc & 0xFF) {
        case SQLITE_OK:
        case SQLITE_DONE:
        case SQLITE_ROW:
            return win::ERROR_SUCCESS;
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            return win::ERROR_BUSY;
        case SQLITE_FULL:
            return win::ERROR_DISK_FULL;
        case SQLITE_NOMEM:
            return win::ERROR_OUTOFMEMORY;
        case SQLITE_READONLY:
        case SQLITE_PERM:
        case SQLITE_AUTH:
            return win::ERROR_ACCESS_DENIED;
        case SQLITE_CANTOPEN:
            return win::ERROR_CANTOPEN;
        case SQLITE_NOTADB:
        case SQLITE_CORRUPT:
        case SQLITE_SCHEMA:
            return win::ERROR_BADDB;
        case SQLITE_TOOBIG:
            return win::ERROR_INVALID_PARAMETER;
        default:
            return win::ERROR_REGISTRY_IO_FAILED;
    }
}

// Prepares a query, steps it once and hands a row, if any, to `read`; the result of the step, or of the
// preparation when that failed.
template <typename Fn>
int QueryOneRow(sqlite3* db, const char* sql, Fn&& read) {
    sqlite3_stmt* stmt = nullptr;
    int rc = sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr);
    if (rc == SQLITE_OK) {
        rc = sqlite3_step(stmt);
        if (rc == SQLITE_ROW) {
            read(stmt);
        }
    }
    sqlite3_finalize(stmt);
    return rc;
}

struct DefaultStore {
    std::mutex mutex;
    std::shared_ptr<RegistryStore> store;
    bool injected = false;
    pid_t owner = 0;
};

DefaultStore& TheDefault() {
    static DefaultStore instance;
    return instance;
}

}  // namespace

// A prepared statement that resets itself when a call is done with it.
class RegistryStore::Statement {
  public:
    Statement(sqlite3_stmt* stmt) : stmt_(stmt) {}
    ~Statement() { sqlite3_finalize(stmt_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    // Binds in order and hands back a guard that resets the statement.
    struct Use {
        sqlite3_stmt* stmt;
        explicit Use(sqlite3_stmt* s) : stmt(s) {}
        ~Use() {
            sqlite3_reset(stmt);
            sqlite3_clear_bindings(stmt);
        }
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;
        Use& Int(int index, std::int64_t v) {
            sqlite3_bind_int64(stmt, index, v);
            return *this;
        }
        Use& Text(int index, const std::string& v) {
            sqlite3_bind_text(stmt, index, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
            return *this;
        }
        Use& Blob(int index, const std::vector<std::uint8_t>& v) {
            sqlite3_bind_blob(stmt, index, v.empty() ? "" : static_cast<const void*>(v.data()),
                              static_cast<int>(v.size()), SQLITE_TRANSIENT);
            return *this;
        }
        int Step() { return sqlite3_step(stmt); }
        std::int64_t ColumnInt(int i) const { return sqlite3_column_int64(stmt, i); }
        std::string ColumnText(int i) const {
            const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(stmt, i));
            return p ? std::string(p, static_cast<std::size_t>(sqlite3_column_bytes(stmt, i)))
                     : std::string();
        }
        std::vector<std::uint8_t> ColumnBlob(int i) const {
            const auto* p = static_cast<const std::uint8_t*>(sqlite3_column_blob(stmt, i));
            return p ? std::vector<std::uint8_t>(p, p + sqlite3_column_bytes(stmt, i))
                     : std::vector<std::uint8_t>();
        }
        // A value row: name, type, data.
        RegValue Value() const {
            RegValue value;
            value.name = DE::ANSIToUnicode(ColumnText(0));
            value.type = static_cast<DWORD>(ColumnInt(1));
            if (IsTextType(value.type)) {
                value.text = DE::ANSIToUnicode(ColumnText(2));
            } else if (IsNumberType(value.type)) {
                value.number = static_cast<std::uint64_t>(ColumnInt(2));
            } else {
                value.bytes = ColumnBlob(2);
            }
            return value;
        }
    };
    Use Start() { return Use(stmt_); }
    // Steps a statement that takes one key id once and resets it; the result of the step.
    int Run(std::int64_t id) {
        auto use = Start();
        use.Int(1, id);
        return use.Step();
    }

  private:
    sqlite3_stmt* stmt_;
};

// The ids of a key path from the hive down; ids[0] is the hive's row.
struct RegistryStore::KeyChain {
    std::vector<std::int64_t> ids;
    std::int64_t Leaf() const { return ids.back(); }
};

RegValue RegValue::String(std::wstring name, std::wstring text, DWORD type) {
    return {.name = std::move(name), .type = type, .text = std::move(text), .number = 0, .bytes = {}};
}

RegValue RegValue::Dword(std::wstring name, DWORD number) {
    return {.name = std::move(name), .type = REG_DWORD, .text = {}, .number = number, .bytes = {}};
}

RegValue RegValue::Qword(std::wstring name, std::uint64_t number) {
    return {.name = std::move(name), .type = kRegQword, .text = {}, .number = number, .bytes = {}};
}

RegValue RegValue::Binary(std::wstring name, std::vector<std::uint8_t> bytes, DWORD type) {
    return {.name = std::move(name), .type = type, .text = {}, .number = 0, .bytes = std::move(bytes)};
}

RegistryStore::RegistryStore(std::filesystem::path file, sqlite3* db) : file_(std::move(file)), db_(db) {}

RegistryStore::~RegistryStore() {
    // The prepared statements are finalized after this, as members; close_v2 defers the close of the
    // connection until the last of them is gone.
    sqlite3_close_v2(db_);
}

SysResult<std::shared_ptr<RegistryStore>> RegistryStore::Open(const std::filesystem::path& file,
                                                              const StoreOptions& options) {
    using Result = SysResult<std::shared_ptr<RegistryStore>>;
    std::error_code ec;
    if (file.has_parent_path()) {
        std::filesystem::create_directories(file.parent_path(), ec);
        if (ec) {
            return Result::Fail(win::FromErrno(ec.value()));
        }
    }
    if (auto checked = CheckExistingFile(file); !checked) {
        return Result::Fail(checked.error);
    }
    sqlite3* db = nullptr;
    const int openRc = sqlite3_open_v2(
        file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    std::shared_ptr<RegistryStore> store(new RegistryStore(file, db));
    if (openRc != SQLITE_OK) {
        return Result::Fail(ErrorOfSqlite(openRc));
    }
    sqlite3_extended_result_codes(db, 1);
    sqlite3_busy_timeout(db, options.busyTimeoutMs);

    // Only an empty database becomes a store; one with other tables is somebody else's file.
    std::int64_t objects = 0;
    std::int64_t hasMeta = 0;
    int rc = QueryOneRow(db,
                         "SELECT (SELECT count(*) FROM sqlite_master),"
                         " (SELECT count(*) FROM sqlite_master WHERE type='table' AND name='meta')",
                         [&](sqlite3_stmt* probe) {
                             objects = sqlite3_column_int64(probe, 0);
                             hasMeta = sqlite3_column_int64(probe, 1);
                         });
    if (rc != SQLITE_ROW) {
        return Result::Fail(ErrorOfSqlite(rc));
    }
    if (objects > 0) {
        if (hasMeta == 0) {
            return Result::Fail(win::ERROR_BADDB);
        }
        bool ours = false;
        QueryOneRow(db,
                    "SELECT (SELECT value FROM meta WHERE name='format'),"
                    " (SELECT value FROM meta WHERE name='version')",
                    [&](sqlite3_stmt* format) {
                        const auto* name = reinterpret_cast<const char*>(sqlite3_column_text(format, 0));
                        ours = name != nullptr && std::strcmp(name, kFormatName) == 0 &&
                               sqlite3_column_int(format, 1) >= 1 &&
                               sqlite3_column_int(format, 1) <= kFormatVersion;
                    });
        if (!ours) {
            return Result::Fail(win::ERROR_BADDB);
        }
    }

    // In WAL mode a commit has written its frames to the log file before it returns. With
    // synchronous=NORMAL the log is not synced on every commit: the frames sit in the kernel's page
    // cache, which the death of the writing process does not touch, so an acknowledged write survives
    // SIGKILL. A power loss can lose the last commits but never leaves the database unreadable, since
    // the log is synced before each checkpoint copies it into the database.
    char* message = nullptr;
    rc = sqlite3_exec(db, "PRAGMA journal_mode=WAL", nullptr, nullptr, &message);
    sqlite3_free(message);
    if (rc != SQLITE_OK) {
        return Result::Fail(ErrorOfSqlite(rc));
    }
    rc = sqlite3_exec(db, "PRAGMA synchronous=NORMAL", nullptr, nullptr, nullptr);
    if (rc == SQLITE_OK && options.maxPageCount > 0) {
        const std::string pragma = "PRAGMA max_page_count=" + std::to_string(options.maxPageCount);
        rc = sqlite3_exec(db, pragma.c_str(), nullptr, nullptr, nullptr);
    }
    if (rc != SQLITE_OK) {
        return Result::Fail(ErrorOfSqlite(rc));
    }
    if (objects == 0) {
        // Two processes may make a new store at once; the schema statements are idempotent and run
        // under the write lock.
        rc = sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
        if (rc == SQLITE_OK) {
            rc = sqlite3_exec(db, kSchema, nullptr, nullptr, nullptr);
            rc = rc == SQLITE_OK ? sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) : rc;
            if (rc != SQLITE_OK) {
                sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
            }
        }
        if (rc != SQLITE_OK) {
            return Result::Fail(ErrorOfSqlite(rc));
        }
    }
    if (auto prepared = store->Prepare(); !prepared) {
        return Result::Fail(prepared.error);
    }
    return Result::Ok(std::move(store));
}

SysResult<std::shared_ptr<RegistryStore>> RegistryStore::Default() {
    using Result = SysResult<std::shared_ptr<RegistryStore>>;
    auto& def = TheDefault();
    std::lock_guard lock(def.mutex);
    // A connection must not be used across fork; a child opens its own.
    if (def.store && (def.injected || def.owner == getpid())) {
        return Result::Ok(def.store);
    }
    if (def.store) {
        // The parent's connection is neither used nor closed here: closing it would touch the parent's
        // locks and shared memory. It is left behind on purpose.
        new std::shared_ptr<RegistryStore>(std::move(def.store));
    }
    auto opened = Open(qlb::MachineProfile::Current().registry);
    if (!opened) {
        return opened;
    }
    def.store = opened.value;
    def.owner = getpid();
    return opened;
}

void RegistryStore::SetDefault(std::shared_ptr<RegistryStore> store) {
    auto& def = TheDefault();
    std::lock_guard lock(def.mutex);
    def.injected = store != nullptr;
    def.store = std::move(store);
    def.owner = getpid();
}

SysStatus RegistryStore::Prepare() {
    const auto make = [this](std::unique_ptr<Statement>& target, const char* sql) {
        sqlite3_stmt* stmt = nullptr;
        const int rc = sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr);
        if (rc == SQLITE_OK) {
            target = std::make_unique<Statement>(stmt);
        }
        return rc;
    };
    const std::pair<std::unique_ptr<Statement>*, const char*> all[] = {
        {&begin_, "BEGIN"},
        {&beginImmediate_, "BEGIN IMMEDIATE"},
        {&commit_, "COMMIT"},
        {&rollback_, "ROLLBACK"},
        {&findKey_, "SELECT id FROM keys WHERE parent=?1 AND fold=?2"},
        {&insertKey_, "INSERT INTO keys(parent, name, fold) VALUES(?1, ?2, ?3)"},
        {&touch_, "UPDATE keys SET tree_stamp=tree_stamp+1, stamp=stamp+?2 WHERE id=?1"},
        {&readStamp_, "SELECT stamp, tree_stamp FROM keys WHERE id=?1"},
        {&getValue_, "SELECT name, type, data FROM vals WHERE key=?1 AND fold=?2"},
        {&upsertValue_,
         "INSERT INTO vals(key, name, fold, type, data) VALUES(?1, ?2, ?3, ?4, ?5)"
         " ON CONFLICT(key, fold) DO UPDATE SET type=excluded.type, data=excluded.data"},
        {&deleteValue_, "DELETE FROM vals WHERE key=?1 AND fold=?2"},
        {&hasChild_, "SELECT 1 FROM keys WHERE parent=?1 LIMIT 1"},
        {&deleteKey_, "DELETE FROM keys WHERE id=?1"},
        {&deleteTreeValues_,
         "WITH RECURSIVE sub(id) AS (SELECT ?1 UNION ALL SELECT k.id FROM keys k JOIN sub ON k.parent=sub.id)"
         " DELETE FROM vals WHERE key IN sub"},
        {&deleteTreeKeys_,
         "WITH RECURSIVE sub(id) AS (SELECT ?1 UNION ALL SELECT k.id FROM keys k JOIN sub ON k.parent=sub.id)"
         " DELETE FROM keys WHERE id IN sub"},
        {&listKeys_, "SELECT name FROM keys WHERE parent=?1 ORDER BY fold"},
        {&listValues_, "SELECT name, type, data FROM vals WHERE key=?1 ORDER BY id"},
        {&versionStmt_, "PRAGMA data_version"},
    };
    for (const auto& [target, sql] : all) {
        if (const int rc = make(*target, sql); rc != SQLITE_OK) {
            return MapError(rc);
        }
    }
    return SysStatus::Ok();
}

SysStatus RegistryStore::MapError(int rc) const {
    return SysStatus{ErrorOfSqlite(rc)};
}

SysStatus RegistryStore::CheckCache() {
    auto version = versionStmt_->Start();
    const int rc = version.Step();
    if (rc != SQLITE_ROW) {
        keyCache_.clear();
        return MapError(rc);
    }
    const std::int64_t now = version.ColumnInt(0);
    if (now != seenVersion_) {
        keyCache_.clear();
        seenVersion_ = now;
    }
    return SysStatus::Ok();
}

// Runs fn inside one read transaction so that a path walk and the reads after it see one snapshot.
template <typename Fn>
SysStatus RegistryStore::Read(Fn&& fn) {
    std::lock_guard lock(mutex_);
    {
        auto begin = begin_->Start();
        if (const int rc = begin.Step(); rc != SQLITE_DONE) {
            return MapError(rc);
        }
    }
    SysStatus status = CheckCache();
    if (status) {
        status = fn();
    }
    auto commit = commit_->Start();
    if (commit.Step() != SQLITE_DONE) {
        auto rollback = rollback_->Start();
        rollback.Step();
    }
    return status;
}

// Runs fn under the write lock and commits; a failure inside fn rolls everything back.
template <typename Fn>
SysStatus RegistryStore::Write(Fn&& fn) {
    std::lock_guard lock(mutex_);
    SysStatus status;
    for (int attempt = 0; attempt < kWriteAttempts; ++attempt) {
        {
            auto begin = beginImmediate_->Start();
            if (const int rc = begin.Step(); rc != SQLITE_DONE) {
                status = MapError(rc);
                if (status.error == win::ERROR_BUSY) {
                    continue;
                }
                return status;
            }
        }
        status = CheckCache();
        if (status) {
            status = fn();
        }
        if (status) {
            auto commit = commit_->Start();
            const int rc = commit.Step();
            if (rc == SQLITE_DONE) {
                return status;
            }
            status = MapError(rc);
        }
        if (sqlite3_get_autocommit(db_) == 0) {
            auto rollback = rollback_->Start();
            rollback.Step();
        }
        // Keys made in the transaction that was undone may be in the cache.
        keyCache_.clear();
        if (status.error != win::ERROR_BUSY) {
            return status;
        }
    }
    return status;
}

SysStatus RegistryStore::Resolve(HKEY root, std::wstring_view path, KeyChain& chain, bool create) {
    const auto hive = HiveOfRoot(root);
    if (!hive) {
        return SysStatus::Fail(hive.error);
    }
    auto names = SplitKeyPath(path);
    if (!names) {
        return SysStatus::Fail(names.error);
    }
    std::wstring cacheKey(1, static_cast<wchar_t>(hive.value));
    for (const auto& name : names.value) {
        cacheKey += L'\\';
        cacheKey += FoldName(name);
    }
    if (const auto cached = keyCache_.find(cacheKey); cached != keyCache_.end()) {
        chain.ids = cached->second;
        return SysStatus::Ok();
    }
    chain.ids.clear();
    chain.ids.reserve(names.value.size() + 1);
    chain.ids.push_back(HiveKeyId(hive.value));
    for (std::size_t i = 0; i < names.value.size(); ++i) {
        const std::string fold = Utf8(FoldName(names.value[i]));
        std::int64_t id = 0;
        {
            auto find = findKey_->Start();
            find.Int(1, chain.Leaf()).Text(2, fold);
            const int rc = find.Step();
            if (rc == SQLITE_ROW) {
                id = find.ColumnInt(0);
            } else if (rc != SQLITE_DONE) {
                return MapError(rc);
            }
        }
        if (id == 0) {
            if (!create) {
                return SysStatus::Fail(win::ERROR_FILE_NOT_FOUND);
            }
            const std::size_t parentDepth = chain.ids.size() - 1;
            {
                auto insert = insertKey_->Start();
                insert.Int(1, chain.Leaf()).Text(2, Utf8(names.value[i])).Text(3, fold);
                if (const int rc = insert.Step(); rc != SQLITE_DONE) {
                    return MapError(rc);
                }
            }
            id = sqlite3_last_insert_rowid(db_);
            // A new subkey is a change of its parent's names.
            if (auto touched = Touch(chain, parentDepth); !touched) {
                return touched;
            }
        }
        chain.ids.push_back(id);
    }
    if (keyCache_.size() >= kKeyCacheLimit) {
        keyCache_.clear();
    }
    keyCache_.emplace(std::move(cacheKey), chain.ids);
    return SysStatus::Ok();
}

// Marks a change of the key at ownerDepth in the chain: its own stamp, and the subtree stamp of it
// and every key above it.
SysStatus RegistryStore::Touch(const KeyChain& chain, std::size_t ownerDepth) {
    // Row by row through the rowid: cheaper in SQLite than one statement with an IN list.
    for (std::size_t i = 0; i <= ownerDepth; ++i) {
        auto touch = touch_->Start();
        touch.Int(1, chain.ids[i]).Int(2, i == ownerDepth ? 1 : 0);
        if (const int rc = touch.Step(); rc != SQLITE_DONE) {
            return MapError(rc);
        }
    }
    return SysStatus::Ok();
}

SysStatus RegistryStore::CreateKey(HKEY root, std::wstring_view path) {
    return Write([&] {
        KeyChain chain;
        return Resolve(root, path, chain, true);
    });
}

SysStatus RegistryStore::OpenKey(HKEY root, std::wstring_view path) {
    return Read([&] {
        KeyChain chain;
        return Resolve(root, path, chain, false);
    });
}

SysResult<RegValue> RegistryStore::GetValue(HKEY root, std::wstring_view path, std::wstring_view name) {
    RegValue value;
    const SysStatus status = Read([&] {
        if (auto checked = CheckValueName(name); !checked) {
            return checked;
        }
        KeyChain chain;
        if (auto resolved = Resolve(root, path, chain, false); !resolved) {
            return resolved;
        }
        auto get = getValue_->Start();
        get.Int(1, chain.Leaf()).Text(2, Utf8(FoldName(name)));
        const int rc = get.Step();
        if (rc == SQLITE_DONE) {
            return SysStatus::Fail(win::ERROR_FILE_NOT_FOUND);
        }
        if (rc != SQLITE_ROW) {
            return MapError(rc);
        }
        value = get.Value();
        return SysStatus::Ok();
    });
    return status ? SysResult<RegValue>::Ok(std::move(value)) : SysResult<RegValue>::Fail(status.error);
}

SysStatus RegistryStore::SetValue(HKEY root, std::wstring_view path, const RegValue& value, bool createKey) {
    if (auto checked = CheckValueName(value.name); !checked) {
        return checked;
    }
    if (value.type == REG_DWORD && value.number > 0xFFFFFFFFULL) {
        return SysStatus::Fail(win::ERROR_INVALID_PARAMETER);
    }
    return Write([&] {
        KeyChain chain;
        if (auto resolved = Resolve(root, path, chain, createKey); !resolved) {
            return resolved;
        }
        {
            auto upsert = upsertValue_->Start();
            upsert.Int(1, chain.Leaf())
                .Text(2, Utf8(value.name))
                .Text(3, Utf8(FoldName(value.name)))
                .Int(4, value.type);
            if (IsTextType(value.type)) {
                upsert.Text(5, Utf8(value.text));
            } else if (IsNumberType(value.type)) {
                upsert.Int(5, static_cast<std::int64_t>(value.number));
            } else {
                upsert.Blob(5, value.bytes);
            }
            if (const int rc = upsert.Step(); rc != SQLITE_DONE) {
                return MapError(rc);
            }
        }
        return Touch(chain, chain.ids.size() - 1);
    });
}

SysStatus RegistryStore::DeleteValue(HKEY root, std::wstring_view path, std::wstring_view name) {
    if (auto checked = CheckValueName(name); !checked) {
        return checked;
    }
    return Write([&] {
        KeyChain chain;
        if (auto resolved = Resolve(root, path, chain, false); !resolved) {
            return resolved;
        }
        {
            auto del = deleteValue_->Start();
            del.Int(1, chain.Leaf()).Text(2, Utf8(FoldName(name)));
            if (const int rc = del.Step(); rc != SQLITE_DONE) {
                return MapError(rc);
            }
        }
        if (sqlite3_changes(db_) == 0) {
            return SysStatus::Fail(win::ERROR_FILE_NOT_FOUND);
        }
        return Touch(chain, chain.ids.size() - 1);
    });
}

SysStatus RegistryStore::DeleteKey(HKEY root, std::wstring_view path) {
    return Write([&] {
        KeyChain chain;
        if (auto resolved = Resolve(root, path, chain, false); !resolved) {
            return resolved;
        }
        if (chain.ids.size() == 1) {
            return SysStatus::Fail(win::ERROR_ACCESS_DENIED);
        }
        {
            const int rc = hasChild_->Run(chain.Leaf());
            if (rc == SQLITE_ROW) {
                return SysStatus::Fail(win::ERROR_ACCESS_DENIED);
            }
            if (rc != SQLITE_DONE) {
                return MapError(rc);
            }
        }
        keyCache_.clear();
        for (auto* stmt : {deleteTreeValues_.get(), deleteKey_.get()}) {
            if (const int rc = stmt->Run(chain.Leaf()); rc != SQLITE_DONE) {
                return MapError(rc);
            }
        }
        return Touch(chain, chain.ids.size() - 2);
    });
}

SysStatus RegistryStore::DeleteTree(HKEY root, std::wstring_view path) {
    return Write([&] {
        KeyChain chain;
        if (auto resolved = Resolve(root, path, chain, false); !resolved) {
            return resolved;
        }
        // Wiping a whole hive is never what a caller means.
        if (chain.ids.size() == 1) {
            return SysStatus::Fail(win::ERROR_ACCESS_DENIED);
        }
        keyCache_.clear();
        for (auto* stmt : {deleteTreeValues_.get(), deleteTreeKeys_.get()}) {
            if (const int rc = stmt->Run(chain.Leaf()); rc != SQLITE_DONE) {
                return MapError(rc);
            }
        }
        return Touch(chain, chain.ids.size() - 2);
    });
}

SysResult<std::vector<std::wstring>> RegistryStore::EnumSubkeys(HKEY root, std::wstring_view path) {
    std::vector<std::wstring> names;
    const SysStatus status = Read([&] {
        KeyChain chain;
        if (auto resolved = Resolve(root, path, chain, false); !resolved) {
            return resolved;
        }
        auto list = listKeys_->Start();
        list.Int(1, chain.Leaf());
        int rc = SQLITE_ROW;
        while ((rc = list.Step()) == SQLITE_ROW) {
            names.push_back(DE::ANSIToUnicode(list.ColumnText(0)));
        }
        return rc == SQLITE_DONE ? SysStatus::Ok() : MapError(rc);
    });
    using Result = SysResult<std::vector<std::wstring>>;
    return status ? Result::Ok(std::move(names)) : Result::Fail(status.error);
}

SysResult<std::vector<RegValue>> RegistryStore::EnumValues(HKEY root, std::wstring_view path) {
    std::vector<RegValue> values;
    const SysStatus status = Read([&] {
        KeyChain chain;
        if (auto resolved = Resolve(root, path, chain, false); !resolved) {
            return resolved;
        }
        auto list = listValues_->Start();
        list.Int(1, chain.Leaf());
        int rc = SQLITE_ROW;
        while ((rc = list.Step()) == SQLITE_ROW) {
            values.push_back(list.Value());
        }
        return rc == SQLITE_DONE ? SysStatus::Ok() : MapError(rc);
    });
    using Result = SysResult<std::vector<RegValue>>;
    return status ? Result::Ok(std::move(values)) : Result::Fail(status.error);
}

SysResult<ChangeStamp> RegistryStore::ReadChangeStamp(HKEY root, std::wstring_view path, bool subtree) {
    ChangeStamp stamp;
    const SysStatus status = Read([&] {
        KeyChain chain;
        if (auto resolved = Resolve(root, path, chain, false); !resolved) {
            return resolved;
        }
        auto read = readStamp_->Start();
        read.Int(1, chain.Leaf());
        const int rc = read.Step();
        if (rc != SQLITE_ROW) {
            return rc == SQLITE_DONE ? SysStatus::Fail(win::ERROR_KEY_DELETED) : MapError(rc);
        }
        stamp.keyId = chain.Leaf();
        stamp.count = read.ColumnInt(subtree ? 1 : 0);
        return SysStatus::Ok();
    });
    return status ? SysResult<ChangeStamp>::Ok(stamp) : SysResult<ChangeStamp>::Fail(status.error);
}

}  // namespace qlb::registry
