package vex.client;

import java.security.cert.CertificateException;
import java.security.cert.X509Certificate;
import vex.jni.VCTKError;

/** Gets the certificates of signers and of their issuers. */
final class SignerChains {
    /** Signed only to get a certificate; the signature is thrown away. */
    static final String CERTIFICATE_REQUEST = "This signature only carries its certificate.";

    private SignerChains() {}

    /**
     * Returns the certificate and its chain; only the certificate if Java cannot read another one of the chain. With a
     * toolkit that does not list them, a signature is made to get them.
     */
    static X509Certificate[] of(Session session, CertificateInfo wanted)
            throws SigningException, CertificateException {
        if (wanted.chain() != null) {
            return Certificates.listed(wanted.chain(), wanted.fingerprint());
        }
        SigningException first = null;
        for (Digest digest : Digest.values()) {
            try {
                return signed(session, wanted.fingerprint(), digest.toString());
            } catch (SigningException e) {
                // A key for RSASSA-PSS may be restricted to another digest.
                if (e.number() != VCTKError.SIGN_FAILED || wanted.keyAlgorithm() != KeyAlgorithm.RSA_PSS) {
                    throw e;
                }
                first = first == null ? e : first;
            }
        }
        throw first;
    }

    private static X509Certificate[] signed(Session session, String wanted, String digest)
            throws SigningException, CertificateException {
        if (session.hasChain()) {
            try {
                return Certificates.chain(request(session, wanted, digest, CmsForm.Certificates.CHAIN), wanted);
            } catch (CertificateException e) {
                // The leaf alone is better than none.
            }
        }
        return Certificates.chain(request(session, wanted, digest, CmsForm.Certificates.SIGNER), wanted);
    }

    private static byte[] request(Session session, String signer, String digest, CmsForm.Certificates certificates)
            throws SigningException {
        return session.signP7(Selection.of(signer), digest, CERTIFICATE_REQUEST, new CmsForm(true, certificates));
    }
}
