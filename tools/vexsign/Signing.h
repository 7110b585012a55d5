// Signs the input.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "Hash.h"
#include "Input.h"
#include "Options.h"
#include "Toolkit.h"

namespace vexsign {

// A signature as it is written.
struct Signature {
    std::vector<std::string> pieces;
    bool bAsBase64 = false;  // the pieces are bytes, and are written as one line of Base64
};

// Reads each input once. Where it can, it hashes the input while it reads and has the digest signed: a detached
// signature needs no memory for the data, an attached one holds the data once. Otherwise the toolkit gets the data:
// with
// --text, for keys that sign data only as a whole, and if the toolkit does not know "prehashed:" before the digest's
// name.
class FileSigner {
public:
    // Decides how to sign, and sets the object's digest. Keeps both references. Throws ToolkitError.
    FileSigner(SigningObject& object, const Options& options);

    // strInput: "-" is standard input. Throws ToolkitError, or std::runtime_error with the input's name.
    Signature Sign(const std::string& strInput);

private:
    struct Limit {
        std::uint64_t cb = std::numeric_limits<std::uint64_t>::max();
        const char* pszMeaning = "";
    };

    void UseDigest(const std::string& strName);
    static void Refuse(std::uint64_t cb, const Limit& limit, const Input& input);
    std::string SignP7(const std::string& strText, int nInputForm, bool bDetached);
    std::string SignText(const std::string& strText, int nInputForm);
    Signature SignWhole(Input& input);
    Signature SignNothing();
    Signature SignDetached(Input& input);
    Signature SignAttached(Input& input);
    Hash FindHash() const;
    Signature Answer(const std::string& strBase64) const;

    SigningObject& m_object;
    const Options& m_options;
    const std::string m_strDigest;  // never empty
    std::string m_strUsed;          // what the object has; empty: its default
    bool m_bByDigest = false;       // the toolkit signs the digest of the input
    Limit m_limit;
};

}  // namespace vexsign
