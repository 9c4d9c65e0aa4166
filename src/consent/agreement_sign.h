#pragma once
// The consent decision: must the user be asked to agree to the user agreement and the privacy
// statement now? Answered from the registry alone, with no network and no file, so it works offline
// on what the last refresh left. Part of the exported consent surface (see docs/consent.md).

#include <string>

class AgreementSign {
  public:
    // -1: the versions in force are agreed to; 0: no record of agreement in this login state;
    // 1: a record exists but is older than a version in force; 2: this device takes no part.
    static int JudgeAgreementSign();
    static int JudgeAgreementSignLogin();
    static int JudgeAgreementSignWithoutLogin();

    // The short-cut "WndAgreeCache": while it reads "1", JudgeAgreementSign reports -1. The refresh
    // clears it; only a caller outside the service sets it.
    static bool GetAgreeCache();
    static void SetAgreeCache(bool flag);

  private:
    friend struct ConsentTestPeer;

    static void RecordeAgreeFlag();
    static void DeleteAgreeFlag();
    // -1 when the record's branch id equals the current local one, 1 when they differ.
    static int JudgeBranchId(const std::wstring& path);
    static int JudgeWhenLogin(const std::wstring& key, const std::string& version133,
                              const std::string& version10021);
};
