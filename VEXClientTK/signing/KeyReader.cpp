#include "signing/KeyReader.h"

#include <utility>

namespace vextk {

KeyPtr KeyReader::Read(const PKCS8_PRIV_KEY_INFO* pKeyInfo) {
    {
        const ErrorMark mark;
        if (!m_decoder) {
            m_decoder.reset(OSSL_DECODER_CTX_new_for_pkey(&m_pRead, "DER", "PrivateKeyInfo", nullptr,
                                                          OSSL_KEYMGMT_SELECT_ALL, nullptr, nullptr));
        }
        unsigned char* pbDer = nullptr;
        const int cbDer = m_decoder ? i2d_PKCS8_PRIV_KEY_INFO(pKeyInfo, &pbDer) : 0;
        const unsigned char* pbRead = pbDer;
        size_t cbRead = cbDer > 0 ? static_cast<size_t>(cbDer) : 0;
        const bool bRead = cbDer > 0 && OSSL_DECODER_from_data(m_decoder.get(), &pbRead, &cbRead) == 1;
        OPENSSL_clear_free(pbDer, cbDer > 0 ? static_cast<size_t>(cbDer) : 0);
        KeyPtr key(std::exchange(m_pRead, nullptr));
        if (bRead && key) {
            return key;
        }
    }
    return KeyPtr(EVP_PKCS82PKEY(pKeyInfo));  // queues the reason
}

}  // namespace vextk
