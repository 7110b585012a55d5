package vex.client;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.math.BigInteger;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.GeneralSecurityException;
import java.security.KeyPair;
import java.security.KeyPairGenerator;
import java.security.MessageDigest;
import java.security.PrivateKey;
import java.security.cert.X509Certificate;
import java.security.spec.ECGenParameterSpec;
import java.time.Duration;
import java.time.Instant;
import java.util.Date;
import java.util.List;
import java.util.Set;
import java.util.concurrent.atomic.AtomicInteger;
import org.bouncycastle.asn1.ASN1ObjectIdentifier;
import org.bouncycastle.asn1.cms.Attribute;
import org.bouncycastle.asn1.cms.ContentInfo;
import org.bouncycastle.asn1.cmp.PKIFailureInfo;
import org.bouncycastle.asn1.cmp.PKIStatus;
import org.bouncycastle.asn1.nist.NISTObjectIdentifiers;
import org.bouncycastle.asn1.pkcs.PKCSObjectIdentifiers;
import org.bouncycastle.asn1.x500.X500Name;
import org.bouncycastle.asn1.x509.AlgorithmIdentifier;
import org.bouncycastle.asn1.x509.BasicConstraints;
import org.bouncycastle.asn1.x509.ExtendedKeyUsage;
import org.bouncycastle.asn1.x509.Extension;
import org.bouncycastle.asn1.x509.KeyPurposeId;
import org.bouncycastle.asn1.x509.KeyUsage;
import org.bouncycastle.cert.jcajce.JcaCertStore;
import org.bouncycastle.cert.jcajce.JcaX509CertificateConverter;
import org.bouncycastle.cert.jcajce.JcaX509v3CertificateBuilder;
import org.bouncycastle.cms.CMSSignedData;
import org.bouncycastle.cms.SignerInformation;
import org.bouncycastle.cms.jcajce.JcaSimpleSignerInfoGeneratorBuilder;
import org.bouncycastle.cms.jcajce.JcaSimpleSignerInfoVerifierBuilder;
import org.bouncycastle.operator.OperatorException;
import org.bouncycastle.operator.jcajce.JcaContentSignerBuilder;
import org.bouncycastle.operator.jcajce.JcaDigestCalculatorProviderBuilder;
import org.bouncycastle.tsp.TSPAlgorithms;
import org.bouncycastle.tsp.TSPException;
import org.bouncycastle.tsp.TimeStampRequest;
import org.bouncycastle.tsp.TimeStampResponseGenerator;
import org.bouncycastle.tsp.TimeStampToken;
import org.bouncycastle.tsp.TimeStampTokenGenerator;
import vex.jni.TestStore;

/** A time-stamp authority in this process, whose replies Bouncy Castle makes. Any thread may ask it. */
final class LocalAuthority implements TimestampSource {
    private static final ASN1ObjectIdentifier POLICY = new ASN1ObjectIdentifier("1.3.6.1.4.1.99999.1");
    private static final Duration CLOCK_TOLERANCE = Duration.ofMinutes(5);

    private final PrivateKey key;
    private final X509Certificate certificate;
    private final X509Certificate root;
    private final AtomicInteger requests = new AtomicInteger();

    LocalAuthority() throws Exception {
        KeyPair rootKey = keyPair();
        root = certificate("CN=Time Root", rootKey, "CN=Time Root", rootKey, true);
        KeyPair own = keyPair();
        key = own.getPrivate();
        certificate = certificate("CN=Time Authority", own, "CN=Time Root", rootKey, false);
    }

    private static KeyPair keyPair() throws GeneralSecurityException {
        KeyPairGenerator generator = KeyPairGenerator.getInstance("EC");
        generator.initialize(new ECGenParameterSpec("secp256r1"));
        return generator.generateKeyPair();
    }

    private static X509Certificate certificate(String subject, KeyPair pair, String issuer, KeyPair issuerPair,
                                               boolean authority) throws Exception {
        Instant now = Instant.now();
        JcaX509v3CertificateBuilder builder = new JcaX509v3CertificateBuilder(new X500Name(issuer),
            BigInteger.valueOf(now.getNano() + 1L), Date.from(now.minus(Duration.ofDays(1))),
            Date.from(now.plus(Duration.ofDays(30))), new X500Name(subject), pair.getPublic());
        builder.addExtension(Extension.basicConstraints, true, new BasicConstraints(authority));
        builder.addExtension(Extension.keyUsage, true,
            new KeyUsage(authority ? KeyUsage.keyCertSign : KeyUsage.digitalSignature));
        if (!authority) {
            builder.addExtension(
                Extension.extendedKeyUsage, true, new ExtendedKeyUsage(KeyPurposeId.id_kp_timeStamping));
        }
        return new JcaX509CertificateConverter().getCertificate(
            builder.build(new JcaContentSignerBuilder("SHA256withECDSA").build(issuerPair.getPrivate())));
    }

    /** How many stamps were asked for. */
    int requests() {
        return requests.get();
    }

    /** Writes the root's certificate and returns the file. */
    Path writeRoot(Path file) throws Exception {
        return Files.writeString(file, TestStore.pem("CERTIFICATE", root.getEncoded()));
    }

    @Override
    public byte[] timestamp(byte[] request) throws IOException {
        return grant(new TimeStampRequest(request));
    }

    byte[] grant(TimeStampRequest request) throws IOException {
        try {
            return responses().generateGrantedResponse(
                request, BigInteger.valueOf(requests.incrementAndGet()), new Date()).getEncoded();
        } catch (TSPException | OperatorException | GeneralSecurityException e) {
            throw new IOException(e);
        }
    }

    byte[] refuse(String text) throws IOException {
        requests.incrementAndGet();
        try {
            return responses().generateFailResponse(PKIStatus.REJECTION, PKIFailureInfo.systemFailure, text)
                .getEncoded();
        } catch (TSPException | OperatorException | GeneralSecurityException e) {
            throw new IOException(e);
        }
    }

    private TimeStampResponseGenerator responses()
            throws OperatorException, GeneralSecurityException, TSPException {
        TimeStampTokenGenerator tokens = new TimeStampTokenGenerator(
            new JcaSimpleSignerInfoGeneratorBuilder().build("SHA256withECDSA", key, certificate),
            new JcaDigestCalculatorProviderBuilder().build().get(
                new AlgorithmIdentifier(NISTObjectIdentifiers.id_sha256)), POLICY);
        tokens.addCertificates(new JcaCertStore(List.of(certificate)));
        return new TimeStampResponseGenerator(tokens, TSPAlgorithms.ALLOWED, Set.of());
    }

    /** Fails unless the CMS signature has one good stamp of this authority, which covers the signature value. */
    void requireStamp(byte[] cms) throws Exception {
        SignerInformation signer = new CMSSignedData(cms).getSignerInfos().iterator().next();
        assertNotNull(signer.getUnsignedAttributes(), "there are no unsigned attributes");
        assertEquals(1, signer.getUnsignedAttributes().size());
        Attribute stamp = signer.getUnsignedAttributes().get(PKCSObjectIdentifiers.id_aa_signatureTimeStampToken);
        assertEquals(1, stamp.getAttrValues().size());
        TimeStampToken token = new TimeStampToken(ContentInfo.getInstance(stamp.getAttrValues().getObjectAt(0)));
        token.validate(new JcaSimpleSignerInfoVerifierBuilder().build(certificate));
        String digest = token.getTimeStampInfo().getMessageImprintAlgOID().getId();
        assertArrayEquals(MessageDigest.getInstance(digest).digest(signer.getSignature()),
            token.getTimeStampInfo().getMessageImprintDigest());
        Duration age = Duration.between(token.getTimeStampInfo().getGenTime().toInstant(), Instant.now());
        assertTrue(age.abs().compareTo(CLOCK_TOLERANCE) < 0, () -> "stamped " + age + " ago");
    }
}
