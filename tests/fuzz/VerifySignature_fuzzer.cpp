// vexsign verify on any bytes: whatever they are, no signature that cannot be one is good, and each report can be
// printed. The input is a signature's file; its first byte chooses what is given beside it.
#include <openssl/pem.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "Require.h"
#include "vexsign/verify/Encoding.h"
#include "vexsign/verify/ReportText.h"
#include "vexsign/verify/Verification.h"

namespace {

// A self-signed certificate of a P-256 key that nobody has any more, valid until 2126.
constexpr std::string_view kCertificate = R"(-----BEGIN CERTIFICATE-----
MIIBdDCCARugAwIBAgIUPU2PC/pNj9XDJu2NCZv+n3KAvdkwCgYIKoZIzj0EAwIw
DzENMAsGA1UEAwwERnV6ejAgFw0yNjExMjIxNzExMDBaGA8yMTI2MTAyOTE3MTEw
MFowDzENMAsGA1UEAwwERnV6ejBZMBMGByqGSM49AgEGCCqGSM49AwEHA0IABIKE
bWJXKbkWI1QkKwmfsUu7krwRbFH3fhbcnyw+p1En2owoH7R5C3TSskwyj1c9cNdf
ZWEkJHGS0zUO2FWnKYijUzBRMB0GA1UdDgQWBBSAkP9JdJoXRlPG0drp177YNAIp
VTAfBgNVHSMEGDAWgBSAkP9JdJoXRlPG0drp177YNAIpVTAPBgNVHRMBAf8EBTAD
AQH/MAoGCCqGSM49BAMCA0cAMEQCID+L8cpmXzTWKB7drTmuRlKol5BoNiTqo/P8
2DzGEwlgAiBBeIRykB4JWp6P066jLclPisicftONkMQyCSPp95hamw==
-----END CERTIFICATE-----
)";

vexsign::verify::Settings SettingsFor(std::uint8_t uChoice) {
    using namespace vexsign::verify;
    Settings settings;
    settings.trust = (uChoice & 1U) != 0 ? Trust::kNone : Trust::kFiles;
    if (settings.trust == Trust::kFiles) {
        settings.store.reset(X509_STORE_new());
    }
    if ((uChoice & 2U) != 0) {
        AddSigner(ReadCertificates(std::string(kCertificate), "the certificate"), settings);
    }
    constexpr std::time_t kMoment = 1800000000;
    settings.nMoment = kMoment;
    return settings;
}

void Print(const vexsign::verify::Report& report) {
    vexposix::OutputBuffer output(-1);
    PrintText(report, true, output);
    for (const char ch : output.Pending()) {
        Require(ch == '\n' || (static_cast<unsigned char>(ch) >= ' ' && ch != '\x7F'));
    }
    output.Discard();
    PrintJson(report, output);
    Require(output.Pending().starts_with("{\"signature\":") && output.Pending().ends_with("]}\n"));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pbData, std::size_t cbData) {
    if (cbData == 0) {
        return 0;
    }
    const vexsign::verify::Settings settings = SettingsFor(pbData[0]);
    const std::string strFile(reinterpret_cast<const char*>(pbData + 1), cbData - 1);
    const vexsign::verify::Reader reader = vexsign::verify::ReaderOf("content");
    const vexsign::verify::Report report =
        vexsign::verify::Verify(strFile, settings, (pbData[0] & 4U) != 0 ? &reader : nullptr);
    Print(report);
    // Nobody is trusted, so nothing is good.
    Require(settings.trust == vexsign::verify::Trust::kNone || !report.IsGood());
    for (const vexsign::verify::SignerReport& signer : report.signers) {
        Require(!report.IsGood() || (signer.certificate && signer.HasPassed(vexsign::verify::check::kSignature)));
    }
    try {
        static_cast<void>(vexsign::verify::ReadCertificates(strFile, "the input"));
    } catch (const std::runtime_error& error) {
        Require(*error.what() != '\0');
    }
    return 0;
}
