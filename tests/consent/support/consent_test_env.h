#pragma once
// A whole consent machine in a temporary directory: its own registry store, machine profile (QDS on,
// region, brand, product version), program directory for the privacy document, the current user's SID,
// and a log file the tests read back.

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>

#include "runtime/common/machine_profile.h"

namespace qlb::consent::testing {

inline constexpr wchar_t kTestSid[] = L"S-1-5-21-100-200-300-1001";

class ConsentTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // Applies a changed profile() to the process.
    void ApplyProfile();
    MachineProfile& profile() { return profile_; }
    const std::filesystem::path& dir() const { return dir_; }

    void SetBrand(const std::string& sysVendor);
    void SetAppVersion(const std::string& version);
    void SetQds(bool supported);

    // Registry values under the test user's subkey (path relative, starting with '\').
    void SetUserValue(const std::wstring& path, const std::wstring& name, const std::string& value);
    std::optional<std::string> UserValue(const std::wstring& path, const std::wstring& name) const;
    bool UserKeyExists(const std::wstring& path) const;
    void DeleteUserKeyTree(const std::wstring& path);

    void SetLoggedIn(bool loggedIn);
    void SetServerUpdated(bool updated);

    // Writes the privacy document of the program directory from plain XML.
    void InstallPrivacyDocument(const std::string& xml);
    void InstallRawPrivacyFile(const std::string& bytes);
    std::filesystem::path PrivacyDocumentPath() const;

    // What this test logged so far.
    std::string LogText() const;
    bool Logged(const std::string& text) const { return LogText().find(text) != std::string::npos; }

  private:
    std::filesystem::path dir_;
    MachineProfile profile_;
    std::uintmax_t logStart_ = 0;
};

// The readable privacy document of the repository.
std::string ShippedPrivacyXml();

}  // namespace qlb::consent::testing
