#pragma once
// Reaches the private steps of the consent classes, so that a test can drive one step on its own.

#include <string>

#include "consent/agreement_service.h"
#include "consent/explain_privacy_xml.h"
#include "runtime/xml/zv_xml.h"

struct ConsentTestPeer {
    static int AnalyzeResponseErrorCode(const std::string& reply) {
        return AgreementService::GetInstance()->AnalyzeResponseErrorCode(reply);
    }
    static int AnalyzeRecordResponse(const std::string& reply) {
        return AgreementService::GetInstance()->AnalyzeRecordResponse(reply);
    }

    static ZvXmlElement InitLocalVersionAndBranchId(const ZvXmlElement& root, const std::string& brand,
                                                    const std::string& version, const std::string& country) {
        return ExplainPrivacyXml::InitLocalVersionAndBranchId(root, brand, version, country);
    }
};
