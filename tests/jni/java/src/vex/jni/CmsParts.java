package vex.jni;

import java.security.cert.X509Certificate;
import java.util.ArrayList;
import java.util.Collection;
import java.util.List;
import org.bouncycastle.cert.X509CertificateHolder;
import org.bouncycastle.cert.jcajce.JcaX509CertificateConverter;
import org.bouncycastle.cert.jcajce.JcaX509CertificateHolder;
import org.bouncycastle.cms.CMSException;
import org.bouncycastle.cms.CMSProcessableByteArray;
import org.bouncycastle.cms.CMSSignedData;
import org.bouncycastle.cms.CMSTypedData;
import org.bouncycastle.cms.SignerInformation;

/**
 * A CMS signature of one signer, parsed.
 *
 * @param known the certificates in the signature and those that the verifier was given
 */
record CmsParts(byte[] content, SignerInformation signer, X509Certificate certificate, List<X509Certificate> known) {
    /** @param content the content of a detached signature; null for an attached one */
    static CmsParts parse(byte[] der, byte[] content, Verifier.Knowledge knowledge) throws Exception {
        CMSSignedData signed = content == null ? new CMSSignedData(der)
                                               : new CMSSignedData(new CMSProcessableByteArray(content), der);
        CMSTypedData contained = signed.getSignedContent();
        if (contained == null) {
            throw new CMSException("no content");
        }
        Collection<SignerInformation> signers = signed.getSignerInfos().getSigners();
        if (signers.size() != 1) {
            throw new CMSException(signers.size() + " signers");
        }
        SignerInformation signer = signers.iterator().next();
        List<X509Certificate> known = new ArrayList<>(knowledge.given());
        for (X509CertificateHolder holder : signed.getCertificates().getMatches(null)) {
            known.add(new JcaX509CertificateConverter().getCertificate(holder));
        }
        for (X509Certificate certificate : known) {
            if (signer.getSID().match(new JcaX509CertificateHolder(certificate))) {
                return new CmsParts((byte[]) contained.getContent(), signer, certificate, known);
            }
        }
        throw new CMSException("the signer's certificate is not known");
    }
}
