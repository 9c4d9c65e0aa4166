// The daily consent refresh, on a detached thread of the daily loop: the agreement cache is switched
// off and the privacy document is read again, which asks the agreement server for the latest versions
// and writes them to the registry.

#include "consent/agreement_sign.h"
#include "consent/explain_privacy_xml.h"
#include "servicehost/service_stages.h"

void RefreshConsentState() {
    AgreementSign::SetAgreeCache(false);
    ExplainPrivacyXml::InitPrivacy();
}
