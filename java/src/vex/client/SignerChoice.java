package vex.client;

import java.io.IOException;
import java.security.cert.CertificateException;
import java.security.cert.X509Certificate;
import java.util.List;

/**
 * Finds the certificate that would sign now, and signs with exactly that one, so that a result names the certificate
 * that made it, whatever expires or becomes valid meanwhile. Any thread may call any method.
 */
final class SignerChoice {
    private final Session session;
    private final Selection selection;
    private final boolean single;
    private final String digest;    // null for the toolkit's default
    private final Stamper stamper;  // null: signatures are not stamped

    SignerChoice(Session session, Selection selection, boolean single, String digest, Stamper stamper) {
        this.session = session;
        this.selection = selection;
        this.single = single;
        this.digest = digest;
        this.stamper = stamper;
    }

    X509Certificate[] chain() throws SigningException {
        return chain(choose());
    }

    SigningResult sign(SigningRequest request) throws IOException, SigningException {
        CertificateInfo signer = choose();
        try {
            return sign(request, signer);
        } catch (SigningException e) {
            // It may have expired since it was chosen.
            if (e.reason() != SigningException.Reason.NO_CERTIFICATE || !request.isRepeatable()) {
                throw e;
            }
            return sign(request, choose());
        }
    }

    private SigningResult sign(SigningRequest request, CertificateInfo signer) throws IOException, SigningException {
        X509Certificate[] chain = chain(signer);
        Selection chosen = selection.with(Filter.fingerprint(signer.fingerprint()));
        byte[] signature = request.sign(new ContentSigner(session, chosen, digest, stamper));
        return new SigningResult(signature, chain, request.isCms() ? SignatureAlgorithm.ofCms(signature)
            : SignatureAlgorithm.ofRaw(signer.keyAlgorithm(), chain[0], digest));
    }

    private X509Certificate[] chain(CertificateInfo signer) throws SigningException {
        try {
            return SignerChains.of(session, signer);
        } catch (CertificateException e) {
            throw SigningException.notSupported(e.getMessage(), e);
        }
    }

    /** As the toolkit chooses. If it refuses to, it tells why when it signs. */
    private CertificateInfo choose() throws SigningException {
        CertificateInfo chosen = longestValid();
        if (chosen == null) {
            signAnything();
            chosen = longestValid();  // the candidates changed meanwhile
        }
        if (chosen == null) {
            throw SigningException.notSupported("The toolkit signs with a certificate that it does not list");
        }
        return chosen;
    }

    private void signAnything() throws SigningException {
        try {
            session.signP1(selection, digest, SignerChains.CERTIFICATE_REQUEST);
        } catch (SigningException e) {
            // A store that stamps makes no bare signatures. Without a certificate, it asks for no stamp.
            if (e.reason() != SigningException.Reason.TIMESTAMP) {
                throw e;
            }
            session.signP7(selection, digest, SignerChains.CERTIFICATE_REQUEST,
                new CmsForm(true, CmsForm.Certificates.NONE));
        }
    }

    /** Null: the toolkit has no certificate to sign with, or more than it may choose from. */
    private CertificateInfo longestValid() throws SigningException {
        List<CertificateInfo> candidates = session.certificates(selection);
        if (single && candidates.size() != 1) {
            return null;
        }
        CertificateInfo longest = null;
        for (CertificateInfo candidate : candidates) {
            if (longest == null || candidate.notAfter().isAfter(longest.notAfter())) {
                longest = candidate;
            }
        }
        return longest;
    }
}
