#pragma once
// RegistryStore: the machine's registry, kept in one SQLite database that every process of the product
// opens at once. Keys form a tree below five hives; values are typed. Failures are Windows error
// numbers. A write that returns success has reached the operating system before it returns, so it
// outlives the writing process; the write-ahead log keeps the file readable after a power loss.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "runtime/common/result.h"
#include "runtime/common/win_types.h"
#include "runtime/registry/registry_path.h"

struct sqlite3;
struct sqlite3_stmt;

namespace qlb::registry {

inline constexpr DWORD kRegNone = 0;
inline constexpr DWORD kRegExpandSz = 2;
inline constexpr DWORD kRegBinary = 3;
inline constexpr DWORD kRegMultiSz = 7;
inline constexpr DWORD kRegQword = 11;

// A value read with a type its reader does not take.
inline constexpr std::uint32_t kErrorUnsupportedType = 1630;

struct RegValue {
    std::wstring name;
    DWORD type = kRegNone;
    std::wstring text;                // REG_SZ, REG_EXPAND_SZ; REG_MULTI_SZ items end in L'\0' each
    std::uint64_t number = 0;         // REG_DWORD, REG_QWORD
    std::vector<std::uint8_t> bytes;  // every other type

    static RegValue String(std::wstring name, std::wstring text, DWORD type = REG_SZ);
    static RegValue Dword(std::wstring name, DWORD number);
    static RegValue Qword(std::wstring name, std::uint64_t number);
    static RegValue Binary(std::wstring name, std::vector<std::uint8_t> bytes, DWORD type = kRegBinary);
    bool operator==(const RegValue&) const = default;
};

// How far a key and what lies below it have changed; two stamps of one key differ after any change.
struct ChangeStamp {
    std::int64_t keyId = 0;
    std::int64_t count = 0;
    bool operator==(const ChangeStamp&) const = default;
};

struct StoreOptions {
    // How long one call waits for another process's write before it fails with ERROR_BUSY.
    int busyTimeoutMs = 10000;
    // Caps the database size in pages (0: no cap); lets tests meet a full disk.
    std::int64_t maxPageCount = 0;
};

class RegistryStore {
  public:
    // Opens the store at `file`, creating the file and its directories if needed. A file that is not a
    // store is ERROR_BADDB and is left as it is.
    static SysResult<std::shared_ptr<RegistryStore>> Open(const std::filesystem::path& file,
                                                          const StoreOptions& options = {});
    // The store of this process, opened on first use from the machine profile's "registry".
    static SysResult<std::shared_ptr<RegistryStore>> Default();
    // Makes every later Default() return `store`; nullptr goes back to the machine profile's store.
    static void SetDefault(std::shared_ptr<RegistryStore> store);

    ~RegistryStore();
    RegistryStore(const RegistryStore&) = delete;
    RegistryStore& operator=(const RegistryStore&) = delete;

    const std::filesystem::path& File() const noexcept { return file_; }

    // Creates the key and every missing parent.
    SysStatus CreateKey(HKEY root, std::wstring_view path);
    // ERROR_FILE_NOT_FOUND when the key is not there.
    SysStatus OpenKey(HKEY root, std::wstring_view path);
    SysResult<RegValue> GetValue(HKEY root, std::wstring_view path, std::wstring_view name);
    // Stores value.name in the key; with createKey the key and its parents are created in the same
    // transaction, otherwise a missing key is ERROR_FILE_NOT_FOUND.
    SysStatus SetValue(HKEY root, std::wstring_view path, const RegValue& value, bool createKey = true);
    SysStatus DeleteValue(HKEY root, std::wstring_view path, std::wstring_view name);
    // Deletes a key without subkeys; ERROR_ACCESS_DENIED if it has any, as a hive root always is.
    SysStatus DeleteKey(HKEY root, std::wstring_view path);
    // Deletes the key with every key and value below it.
    SysStatus DeleteTree(HKEY root, std::wstring_view path);
    // The names of the subkeys, as created, in the order the registry lists them (without regard to case).
    SysResult<std::vector<std::wstring>> EnumSubkeys(HKEY root, std::wstring_view path);
    // The values in the order they were first set.
    SysResult<std::vector<RegValue>> EnumValues(HKEY root, std::wstring_view path);
    // The change stamp of the key alone (its values and the names of its direct subkeys) or of its whole
    // subtree. A key that is deleted and made again has another keyId.
    SysResult<ChangeStamp> ReadChangeStamp(HKEY root, std::wstring_view path, bool subtree);

  private:
    class Statement;
    struct KeyChain;

    RegistryStore(std::filesystem::path file, sqlite3* db);
    SysStatus Prepare();
    template <typename Fn>
    SysStatus Read(Fn&& fn);
    template <typename Fn>
    SysStatus Write(Fn&& fn);
    SysStatus Resolve(HKEY root, std::wstring_view path, KeyChain& chain, bool create);
    SysStatus Touch(const KeyChain& chain, std::size_t ownerDepth);
    SysStatus MapError(int rc) const;
    // Drops the cached key ids when another connection has committed since they were read.
    SysStatus CheckCache();

    std::filesystem::path file_;
    sqlite3* db_ = nullptr;
    std::mutex mutex_;
    std::unique_ptr<Statement> begin_, beginImmediate_, commit_, rollback_;
    std::unique_ptr<Statement> findKey_, insertKey_, touch_, readStamp_;
    std::unique_ptr<Statement> getValue_, upsertValue_, deleteValue_, hasChild_, deleteKey_;
    std::unique_ptr<Statement> deleteTreeValues_, deleteTreeKeys_, listKeys_, listValues_, versionStmt_;
    // Key ids by hive and folded path. Valid while no other connection commits (PRAGMA data_version
    // tells) and this one neither deletes keys nor rolls back.
    std::unordered_map<std::wstring, std::vector<std::int64_t>> keyCache_;
    std::int64_t seenVersion_ = -1;
};

}  // namespace qlb::registry
