#include "Batch.h"

#include <unistd.h>

#include <cstddef>
#include <exception>
#include <mutex>
#include <new>
#include <string>
#include <utility>

#include "Files.h"
#include "OutputNames.h"
#include "OutputQueue.h"
#include "Progress.h"
#include "Signing.h"
#include "common/Message.h"
#include "common/SignalsBlocked.h"
#include "common/TemporaryFile.h"

namespace vexsign {
namespace {

class Batch {
public:
    Batch(SigningObject& object, const Options& options)
        : m_object(object),
          m_options(options),
          m_signer(object, options),
          m_progress(options.inputs.size(), isatty(STDERR_FILENO) != 0) {}

    bool Run() {
        SignAll();
        m_progress.Remove();
        if (!m_strCertificate.empty()) {
            WriteOutputs({{m_options.strCertificate, {m_strCertificate}}});
        }
        if (m_cFailed > 0) {
            tools::Complain("vexsign", std::to_string(m_cFailed) + " of " + std::to_string(m_options.inputs.size()) +
                                           " files were not signed");
        }
        return m_cFailed == 0;
    }

private:
    void SignAll() {
        OutputQueue outputs([this](std::size_t nInput, const std::string& strReason) { Fail(nInput, strReason); });
        // The thread that creates temporary files receives these signals, so that none is left behind.
        const tools::SignalsBlocked blocked(tools::kEndingSignals);
        for (std::size_t i = 0; i < m_options.inputs.size(); ++i) {
            SignOrFail(i, outputs);
            const std::lock_guard lock(m_lock);
            m_progress.OnDone(i + 1);
        }
        outputs.Finish();
    }

    void SignOrFail(std::size_t nInput, OutputQueue& outputs) {
        try {
            Sign(nInput, outputs);
        } catch (const std::bad_alloc&) {
            Fail(nInput, "out of memory");
        } catch (const std::exception& reason) {
            Fail(nInput, reason.what());
        }
    }

    void Sign(std::size_t nInput, OutputQueue& outputs) {
        const std::string& strInput = m_options.inputs[nInput];
        Signature signature = m_signer.Sign(strInput);
        if (!m_options.strCertificate.empty() && m_strCertificate.empty()) {
            m_strCertificate = CertificateAsPem(DecodeAnswer(m_object.Certificate(), "certificate"));
        }
        outputs.Add({SignatureFile(m_options, strInput), std::move(signature), nInput});
    }

    // The toolkit's texts do not name the input.
    void Fail(std::size_t nInput, const std::string& strReason) {
        const std::string strBefore = m_options.inputs[nInput] + ": ";
        const std::lock_guard lock(m_lock);
        m_progress.Remove();
        tools::Complain("vexsign", strReason.starts_with(strBefore) ? strReason : strBefore + strReason);
        ++m_cFailed;
    }

    SigningObject& m_object;
    const Options& m_options;
    FileSigner m_signer;
    std::string m_strCertificate;  // PEM; all signatures have the same
    std::mutex m_lock;
    Progress m_progress;        // guarded by m_lock while there is an OutputQueue
    std::size_t m_cFailed = 0;  // guarded by m_lock while there is an OutputQueue
};

}  // namespace

bool SignFiles(SigningObject& object, const Options& options) {
    return Batch(object, options).Run();
}

}  // namespace vexsign
