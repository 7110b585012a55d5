// OpenSSL's objects of time stamps as owning C++ types, and what else of OpenSSL this library uses.
#pragma once

#include <openssl/ess.h>
#include <openssl/http.h>
#include <openssl/ts.h>

#include <memory>

#include "crypto/Errors.h"
#include "crypto/Owned.h"
#include "crypto/Values.h"

namespace vextimestamp {

using namespace vexcrypto;

using HttpPtr = std::unique_ptr<OSSL_HTTP_REQ_CTX, Deleter<OSSL_HTTP_REQ_CTX_free>>;
using ImprintPtr = std::unique_ptr<TS_MSG_IMPRINT, Deleter<TS_MSG_IMPRINT_free>>;
using InfoPtr = std::unique_ptr<TS_TST_INFO, Deleter<TS_TST_INFO_free>>;
using IntegerPtr = std::unique_ptr<ASN1_INTEGER, Deleter<ASN1_INTEGER_free>>;
using RequestPtr = std::unique_ptr<TS_REQ, Deleter<TS_REQ_free>>;
using StatusPtr = std::unique_ptr<TS_STATUS_INFO, Deleter<TS_STATUS_INFO_free>>;

}  // namespace vextimestamp
