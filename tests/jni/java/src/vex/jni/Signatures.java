package vex.jni;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.security.GeneralSecurityException;
import java.security.MessageDigest;
import java.security.Provider;
import java.security.Signature;
import java.security.cert.CertPathBuilder;
import java.security.cert.CertStore;
import java.security.cert.CollectionCertStoreParameters;
import java.security.cert.PKIXBuilderParameters;
import java.security.cert.TrustAnchor;
import java.security.cert.X509CertSelector;
import java.security.cert.X509Certificate;
import java.time.Duration;
import java.time.Instant;
import java.util.Base64;
import java.util.Collection;
import java.util.Date;
import java.util.HashSet;
import java.util.Set;
import org.bouncycastle.asn1.cms.Attribute;
import org.bouncycastle.asn1.cms.AttributeTable;
import org.bouncycastle.asn1.cms.CMSAttributes;
import org.bouncycastle.asn1.cms.Time;
import org.bouncycastle.asn1.ess.ESSCertIDv2;
import org.bouncycastle.asn1.ess.SigningCertificateV2;
import org.bouncycastle.asn1.pkcs.PKCSObjectIdentifiers;
import org.bouncycastle.cert.X509CertificateHolder;
import org.bouncycastle.cert.jcajce.JcaX509CertificateConverter;
import org.bouncycastle.cms.CMSProcessableByteArray;
import org.bouncycastle.cms.CMSSignedData;
import org.bouncycastle.cms.CMSTypedData;
import org.bouncycastle.cms.SignerInformation;
import org.bouncycastle.cms.jcajce.JcaSimpleSignerInfoVerifierBuilder;
import org.bouncycastle.jce.provider.BouncyCastleProvider;

/** Verifies signatures with the JDK and Bouncy Castle, which did not make them. */
public final class Signatures {
    public static final String SHA256_OID = "2.16.840.1.101.3.4.2.1";

    private static final Duration CLOCK_TOLERANCE = Duration.ofMinutes(5);

    private Signatures() {}

    /** The certificate with which the client signs, from a signature that includes it. */
    static X509Certificate signerOf(Client client) throws Exception {
        String signature = client.require(client.p7SignString("who?", true, true));
        return certificateIn(Base64.getDecoder().decode(signature));
    }

    public static X509Certificate certificateIn(byte[] p7) throws Exception {
        Set<X509Certificate> certificates = certificatesIn(p7);
        assertEquals(1, certificates.size());
        return certificates.iterator().next();
    }

    public static Set<X509Certificate> certificatesIn(byte[] p7) throws Exception {
        Set<X509Certificate> certificates = new HashSet<>();
        for (X509CertificateHolder holder : new CMSSignedData(p7).getCertificates().getMatches(null)) {
            certificates.add(new JcaX509CertificateConverter().getCertificate(holder));
        }
        return certificates;
    }

    /** Builds a path from the certificate to the root with those in the signature (RFC 5280 section 6.1). */
    public static void requirePath(byte[] p7, X509Certificate certificate, X509Certificate root, Provider provider)
            throws Exception {
        requirePath(certificatesIn(p7), certificate, root, provider);
    }

    /** Builds a path from the certificate to the root, which alone is trusted. */
    static void requirePath(Collection<X509Certificate> known, X509Certificate certificate, X509Certificate root,
                            Provider provider) throws GeneralSecurityException {
        X509CertSelector target = new X509CertSelector();
        target.setCertificate(certificate);
        PKIXBuilderParameters parameters = new PKIXBuilderParameters(Set.of(new TrustAnchor(root, null)), target);
        parameters.addCertStore(
            CertStore.getInstance("Collection", new CollectionCertStoreParameters(known), provider));
        parameters.setRevocationEnabled(false);
        CertPathBuilder.getInstance("PKIX", provider).build(parameters);
    }

    /** The JDK's name of a signature algorithm, for example SHA256withECDSA for SHA256 and EC. */
    public static String jdkName(String digest, String keyAlgorithm) {
        return digest + "with" + (keyAlgorithm.equals("EC") ? "ECDSA" : keyAlgorithm);
    }

    /** @param digest as the JDK spells it in the names of signature algorithms, for example SHA256 */
    public static boolean isP1Good(String base64, byte[] content, X509Certificate certificate, String digest)
            throws Exception {
        Signature verifier = Signature.getInstance(jdkName(digest, certificate.getPublicKey().getAlgorithm()));
        verifier.initVerify(certificate.getPublicKey());
        verifier.update(content);
        return verifier.verify(Base64.getDecoder().decode(base64));
    }

    /**
     * Asserts that a P7 signature is good, and that it has the wanted form and attributes.
     *
     * @param digestOid of the digest algorithm
     */
    public static void assertP7(String base64, byte[] content, boolean detached, boolean withCertificate,
                         X509Certificate certificate, String digestOid) throws Exception {
        SignerInformation signer = assertP7Form(base64, content, detached, certificate,
            withCertificate ? Set.of(certificate) : Set.of(), digestOid);
        JcaSimpleSignerInfoVerifierBuilder verifier = new JcaSimpleSignerInfoVerifierBuilder();
        if (signer.getEncryptionAlgOID().equals(PKCSObjectIdentifiers.id_RSASSA_PSS.getId())) {
            verifier.setProvider(new BouncyCastleProvider());  // the JDK does not know the name that is asked for
        }
        assertTrue(signer.verify(verifier.build(certificate)));
    }

    /** The same without verifying the signature value; returns the signer for that. */
    static SignerInformation assertP7Form(String base64, byte[] content, boolean detached, X509Certificate certificate,
                                          Set<X509Certificate> included, String digestOid) throws Exception {
        byte[] der = Base64.getDecoder().decode(base64);
        CMSTypedData contained = new CMSSignedData(der).getSignedContent();
        CMSSignedData signed;
        if (detached) {
            assertNull(contained);
            signed = new CMSSignedData(new CMSProcessableByteArray(content), der);
        } else {
            assertNotNull(contained);
            assertArrayEquals(content, (byte[]) contained.getContent());
            signed = new CMSSignedData(der);
        }
        assertEquals(included, certificatesIn(der));

        Collection<SignerInformation> signers = signed.getSignerInfos().getSigners();
        assertEquals(1, signers.size());
        SignerInformation signer = signers.iterator().next();
        assertEquals(digestOid, signer.getDigestAlgOID());
        assertSignedAttributes(signer.getSignedAttributes(), certificate);
        return signer;
    }

    private static void assertSignedAttributes(AttributeTable attributes, X509Certificate certificate)
            throws Exception {
        Attribute signingTime = attributes.get(CMSAttributes.signingTime);
        assertNotNull(signingTime);
        Date date = Time.getInstance(signingTime.getAttrValues().getObjectAt(0)).getDate();
        Duration age = Duration.between(date.toInstant(), Instant.now());
        assertTrue(age.abs().compareTo(CLOCK_TOLERANCE) < 0, () -> "signing time " + date);

        Attribute signingCertificate = attributes.get(PKCSObjectIdentifiers.id_aa_signingCertificateV2);
        assertNotNull(signingCertificate);
        ESSCertIDv2[] ids =
            SigningCertificateV2.getInstance(signingCertificate.getAttrValues().getObjectAt(0)).getCerts();
        assertEquals(1, ids.length);
        String algorithm = ids[0].getHashAlgorithm().getAlgorithm().getId();
        assertArrayEquals(MessageDigest.getInstance(algorithm).digest(certificate.getEncoded()), ids[0].getCertHash());
    }
}
