#pragma once
// A whole consent machine in a temporary directory: its own registry store, machine profile (QDS on,
// region, brand, product version 11.0.0.1), program directory for the privacy document, the current user's
// SID, a log the tests read back, and on demand a local HTTPS agreement server.

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "runtime/common/machine_profile.h"
#include "support/files.h"
#include "support/http_test_server.h"
#include "support/temp_dir.h"

namespace qlb::consent::testing {

inline constexpr wchar_t kTestSid[] = L"S-1-5-21-100-200-300-1001";

class ConsentTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // Applies a changed profile() to the process.
    void ApplyProfile() { MachineProfile::SetCurrent(profile_); }
    MachineProfile& profile() { return profile_; }

    void SetBrand(const std::string& sysVendor);

    // Registry values under the test user's subkey (path relative, starting with '\').
    void SetUserValue(const std::wstring& path, const std::wstring& name, const std::string& value);
    std::optional<std::string> UserValue(const std::wstring& path, const std::wstring& name) const;
    bool UserKeyExists(const std::wstring& path) const;
    void SetLoggedIn(bool loggedIn);
    void SetServerUpdated(bool updated);

    // Writes the privacy document of the program directory from plain XML.
    void InstallPrivacyDocument(const std::string& xml);
    std::filesystem::path PrivacyDocumentPath() const;

    // Whether this test logged the text so far.
    bool Logged(const std::string& text) const { return log_->Has(text); }

    // An HTTPS server whose certificate the profile trusts; ConnectServer names it as the agreement host.
    void StartServer();
    void ConnectServer();
    qlb::testing::HttpTestServer& server() { return *server_; }

  private:
    qlb::testing::TempDir dir_;
    MachineProfile profile_;
    std::unique_ptr<qlb::testing::FileTail> log_;
    std::unique_ptr<qlb::testing::HttpTestServer> server_;
};

// The readable privacy document of the repository.
std::string ShippedPrivacyXml();

}  // namespace qlb::consent::testing
