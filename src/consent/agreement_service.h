#pragma once
// The client of the agreement server and the operations on the agreement records. A process-wide
// singleton; part of the exported consent surface (see docs/consent.md).

#include <string>

class AgreementService {
  public:
    static AgreementService* GetInstance();
    // Kept for callers that pair it with GetInstance; the instance lives for the process.
    static void DestroyInstance();

    // Records this user's agreement to both terms on the server. Result code: 0, 2 (no host), 400,
    // the server's "errorCode", or the HTTP layer's code when no reply came.
    int AgreementSign(const std::string& accessToken);
    // Fetches the user's record from the server and stores it in the login record.
    int GetSignRecord(const std::string& accessToken);
    // The latest version of the terms for `branchId` into `version` (left alone unless the code is 0).
    int GetLatestVersion(const std::string& branchId, std::string& version);

    std::string GetReqUrl(const std::string& host);
    std::string GetReqJsonData(int branchId, const std::string& country);
    // The last "latestVersion" of "versionInfo" as decimal text, or an empty string.
    std::string AnalyzeVersionResponse(const std::string& reply);

    // Stores what the server says the account has signed; true also when nobody is logged in.
    bool SetRecordRegValue(int agrType, int version, int branchId);
    // Records agreement without an account to both terms (the intact records).
    void SetRecordWithoutLogin();
    // Copies the versions in force into the login cache.
    void SaveCache();
    bool IfHaveCache();
    // True when a version in force is newer than the cached one.
    bool NeedUpdateExistCache();
    void DeleteCache();

    AgreementService(const AgreementService&) = delete;
    AgreementService& operator=(const AgreementService&) = delete;

  private:
    friend struct ConsentTestPeer;

    AgreementService() = default;

    std::string GetServerHost(const std::string& key);
    std::string GetLanguage();
    std::string AgreementSignJsonData();
    std::string GetSignRecordJsonData();
    int AnalyzeResponseErrorCode(const std::string& reply);
    int AnalyzeRecordResponse(const std::string& reply);
    void SetIntactRecordWithoutLogin(const std::wstring& agrTypeName, const std::wstring& subkey);
    // One POST; the attempt is made once.
    int SendRequest(const std::string& url, const std::string& body, const char* contentType,
                    std::string& reply);
};
