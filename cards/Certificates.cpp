// displayCertificates: prints every certificate that the tokens show without login, then finalises
// and re-initialises the module, so that the next test meets a fresh one. The operator sees up to
// ten listings a token, between rules, among the report lines.
#include <array>

#include "harness/Objects.h"
#include "harness/Openssl.h"
#include "harness/Report.h"
#include "harness/Slots.h"
#include "harness/TestManager.h"

namespace kestrel {

namespace {

constexpr std::size_t maxCertificates = 10;  // shown of one token
struct FoundCertificates {
  std::array<CK_OBJECT_HANDLE, maxCertificates> handles{};
  CK_ULONG count = 0;
};

FoundCertificates findCertificates(CK_SESSION_HANDLE session) {
  CK_OBJECT_CLASS objectClass = CKO_CERTIFICATE;
  CK_BBOOL onToken = CK_TRUE;
  std::array<CK_ATTRIBUTE, 2> wanted{
      {{CKA_CLASS, &objectClass, sizeof objectClass}, {CKA_TOKEN, &onToken, sizeof onToken}}};
  FoundCertificates found;
  findObjects(session, wanted, found.handles, found.count);
  return found;
}

// Prints the listing of a DER certificate. Returns what was in the way, null for nothing.
const char* printListing(const std::uint8_t* der, std::uint32_t length) {
  const BioOwner input(BIO_new_mem_buf(der, static_cast<int>(length)));
  if (input == nullptr) return "Failed to create BIO object.";
  const CertificateOwner certificate(d2i_X509_bio(input.get(), nullptr));
  if (certificate == nullptr) return "Failed to parse X509 certificate.";
  const BioOwner output(BIO_new(BIO_s_mem()));
  if (output == nullptr) return "Failed to create BIO object for output.";
  if (X509_print_ex(output.get(), certificate.get(), 0, 0) < 1) {
    return "Error printing certificate.";
  }
  char* text = nullptr;
  const long textLength = BIO_get_mem_data(output.get(), &text);
  if (textLength <= 0 || text == nullptr) return "Failed to get data from BIO.";
  const std::string rule(66, '=');
  report << "\n" << rule << "\n";
  report.write(text, textLength) << "\n" << rule << "\n\n";
  return nullptr;
}

void printCertificate(const std::uint8_t* der, std::uint32_t length) {
  const OpensslErrorScope errors;
  if (const char* problem = printListing(der, length)) sayError({problem, "\n"});
}

// The walk over the tokens and their certificates.
CK_RV showTokenCertificates() {
  const std::optional<SlotList> list = fetchOwnSlotList();
  if (!list) return CKR_OK;
  for (const TokenSlot token : PresentTokens(list->all())) {
    const CK_SESSION_HANDLE session = openSession(token.id);
    const FoundCertificates found = findCertificates(session);
    if (found.count == 0) {
      report << "No certificates found. Exiting." << std::endl;
      report << "Please make sure you have a certificate installed on the token.\n";
      continue;  // its session stays open until C_Finalize
    }
    for (CK_ULONG k = 0; k < found.count; ++k) {
      const std::vector<CK_BYTE> value = readCertificate(session, found.handles[k]);
      report << "\nCertificate " << k + 1 << " :\n";
      printCertificate(value.data(), static_cast<std::uint32_t>(value.size()));
    }
    require(p11::C_CloseSession, session);
  }
  return CKR_OK;
}

}  // namespace

CK_RV TestManager::displayCertificates() {
  report << "displayCertificates - login to token and display certificates...\n";
  showTokenCertificates();
  require(p11::C_Finalize, nullptr);
  CK_FUNCTION_LIST* offered = nullptr;  // the functions that setup() fetched stay in use
  require(p11::C_GetFunctionList, &offered);
  require(p11::C_Initialize, nullptr);
  CK_INFO info{};
  require(p11::C_GetInfo, &info);
  return CKR_OK;
}

}  // namespace kestrel
