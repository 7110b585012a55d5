#include "ReportText.h"

#include "posix/VisibleText.h"

namespace vexsign::verify {
namespace {

class TextPrinter {
public:
    TextPrinter(bool bUtf8, vexposix::OutputBuffer& output) : m_bUtf8(bUtf8), m_output(output) {}

    void Print(const Report& report) {
        vexposix::AppendVisible(m_output, report.strSignature, m_bUtf8);
        m_output.Append(report.IsGood() ? ": the signature is good" : ": the signature is NOT good");
        m_output.Append(
            report.IsGood() && report.trust == Trust::kNone ? ", but whose certificate it is was not checked\n" : "\n");
        Checks(report, "");
        for (std::size_t i = 0; i < report.signers.size(); ++i) {
            if (report.signers.size() > 1) {
                m_output.Append("signer ");
                m_output.AppendNumber(i + 1);
                m_output.Append(":\n");
            }
            Signer(report.signers[i]);
        }
    }

private:
    void Signer(const SignerReport& signer) {
        if (signer.certificate) {
            Field("signed by", signer.certificate->strSubject);
            Field("issued by", signer.certificate->strIssuer);
            Field("serial number", signer.certificate->strSerial);
            Field("fingerprint", signer.certificate->strFingerprint);
            Field("valid", signer.certificate->strNotBefore + " to " + signer.certificate->strNotAfter);
        }
        if (signer.time) {
            Field("signed at",
                  signer.time->strTime + (signer.time->bProven ? " at the latest; a time stamp proves it"
                                                               : ", as the signer says; nothing proves it"));
            if (signer.time->bProven && !signer.time->strClaimed.empty()) {
                Field("claimed time", signer.time->strClaimed + ", as the signer says");
            }
        }
        for (const TimeStamp& stamp : signer.stamps) {
            Field("time stamp", stamp.strTime + " by " + stamp.strAuthority + (stamp.bTrusted ? "" : ", not trusted"));
        }
        if (!signer.strAlgorithm.empty()) {
            Field("algorithm", signer.strAlgorithm);
        }
        Checks(signer, "  ");
    }

    void Field(std::string_view name, std::string_view value) {
        constexpr std::size_t kColumn = 18;
        const std::size_t nBegin = m_output.Length();
        m_output.Append("  ");
        m_output.Append(name);
        m_output.Append(':');
        m_output.PadTo(nBegin + kColumn);
        vexposix::AppendVisible(m_output, value, m_bUtf8);
        m_output.Append('\n');
    }

    void Checks(const Findings& findings, std::string_view indentation) {
        List(findings, Result::kFailed, "wrong:", indentation);
        List(findings, Result::kPassed, "checked:", indentation);
        List(findings, Result::kNotChecked, "not checked:", indentation);
    }

    void List(const Findings& findings, Result result, std::string_view title, std::string_view indentation) {
        bool bFirst = true;
        for (const Check& found : findings.checks) {
            if (found.result != result) {
                continue;
            }
            if (bFirst) {
                m_output.Append(indentation);
                m_output.Append(title);
                m_output.Append('\n');
            }
            bFirst = false;
            m_output.Append(indentation);
            m_output.Append("  ");
            m_output.Append(found.pszName);
            m_output.Append(": ");
            vexposix::AppendVisible(m_output, found.strText, m_bUtf8);
            m_output.Append('\n');
        }
    }

    const bool m_bUtf8;
    vexposix::OutputBuffer& m_output;
};

class JsonPrinter {
public:
    explicit JsonPrinter(vexposix::OutputBuffer& output) : m_output(output) {}

    void Print(const Report& report) {
        Open('{');
        String("signature", report.strSignature);
        String("type", report.kind == Kind::kP1 ? "p1" : "p7");
        Bool("detached", report.bDetached);
        Bool("good", report.IsGood());
        String("trust", report.trust == Trust::kFiles ? "ca" : report.trust == Trust::kSystem ? "system" : "none");
        String("checked_for", report.strMoment);
        Checks(report);
        Name("signers");
        Open('[');
        for (const SignerReport& signer : report.signers) {
            Separate();
            Signer(signer);
        }
        Close(']');
        Close('}');
        m_output.Append('\n');
    }

private:
    void Signer(const SignerReport& signer) {
        Open('{');
        Name("certificate");
        if (signer.certificate) {
            Open('{');
            String("subject", signer.certificate->strSubject);
            String("issuer", signer.certificate->strIssuer);
            String("serial", signer.certificate->strSerial);
            String("fingerprint_sha256", signer.certificate->strFingerprint);
            String("not_before", signer.certificate->strNotBefore);
            String("not_after", signer.certificate->strNotAfter);
            Close('}');
        } else {
            m_output.Append("null");
        }
        Name("signing_time");
        if (signer.time) {
            Open('{');
            String("time", signer.time->strTime);
            Bool("proven", signer.time->bProven);
            StringOrNull("claimed", signer.time->strClaimed);
            Close('}');
        } else {
            m_output.Append("null");
        }
        Name("time_stamps");
        Open('[');
        for (const TimeStamp& stamp : signer.stamps) {
            Separate();
            Open('{');
            String("time", stamp.strTime);
            String("authority", stamp.strAuthority);
            String("policy", stamp.strPolicy);
            String("serial", stamp.strSerial);
            String("digest", stamp.strDigest);
            Bool("trusted", stamp.bTrusted);
            Close('}');
        }
        Close(']');
        StringOrNull("algorithm", signer.strAlgorithm);
        Checks(signer);
        Close('}');
    }

    void Checks(const Findings& findings) {
        Name("checks");
        Open('[');
        for (const Check& found : findings.checks) {
            Separate();
            Open('{');
            String("check", found.pszName);
            String("result", found.result == Result::kPassed   ? "passed"
                             : found.result == Result::kFailed ? "failed"
                                                               : "not-checked");
            String("text", found.strText);
            Close('}');
        }
        Close(']');
    }

    void Open(char ch) {
        m_output.Append(ch);
        m_bFirst = true;
    }
    void Close(char ch) {
        m_output.Append(ch);
        m_bFirst = false;
    }
    void Separate() {
        m_output.Append(m_bFirst ? "" : ",");
        m_bFirst = false;
    }
    void Name(std::string_view name) {
        Separate();
        vexposix::AppendJsonString(m_output, name);
        m_output.Append(':');
    }
    void String(std::string_view name, std::string_view value) {
        Name(name);
        vexposix::AppendJsonString(m_output, value);
    }
    void StringOrNull(std::string_view name, std::string_view value) {
        Name(name);
        if (value.empty()) {
            m_output.Append("null");
        } else {
            vexposix::AppendJsonString(m_output, value);
        }
    }
    void Bool(std::string_view name, bool bValue) {
        Name(name);
        m_output.Append(bValue ? "true" : "false");
    }

    vexposix::OutputBuffer& m_output;
    bool m_bFirst = true;
};

}  // namespace

void PrintText(const Report& report, bool bUtf8, vexposix::OutputBuffer& output) {
    TextPrinter(bUtf8, output).Print(report);
}

void PrintJson(const Report& report, vexposix::OutputBuffer& output) {
    JsonPrinter(output).Print(report);
}

}  // namespace vexsign::verify
