package vex.interop;

import java.security.GeneralSecurityException;
import java.security.cert.CertPathValidator;
import java.security.cert.CertificateFactory;
import java.security.cert.PKIXParameters;
import java.security.cert.TrustAnchor;
import java.security.cert.X509Certificate;
import java.util.List;
import java.util.Set;

/** Somebody who has the root's certificate and gets the others with a signature. */
final class Trust {
    private Trust() {}

    /** @param path the signer's certificate first, without the root's */
    static void require(List<X509Certificate> path, X509Certificate root) throws GeneralSecurityException {
        PKIXParameters parameters = new PKIXParameters(Set.of(new TrustAnchor(root, null)));
        parameters.setRevocationEnabled(false);
        CertPathValidator.getInstance("PKIX").validate(
            CertificateFactory.getInstance("X.509").generateCertPath(path), parameters);
    }
}
