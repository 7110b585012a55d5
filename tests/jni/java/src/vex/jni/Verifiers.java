package vex.jni;

import java.lang.reflect.InvocationTargetException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.GeneralSecurityException;
import java.security.MessageDigest;
import java.security.NoSuchAlgorithmException;
import java.security.Provider;
import java.security.Security;
import java.security.Signature;
import java.security.cert.X509Certificate;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collection;
import java.util.List;
import java.util.Optional;
import org.bouncycastle.asn1.ASN1OctetString;
import org.bouncycastle.asn1.cms.CMSAttributes;
import org.bouncycastle.cms.CMSException;
import org.bouncycastle.cms.CMSProcessableByteArray;
import org.bouncycastle.cms.CMSSignedData;
import org.bouncycastle.cms.CMSTypedData;
import org.bouncycastle.cms.SignerInformation;
import org.bouncycastle.cms.jcajce.JcaSimpleSignerInfoVerifierBuilder;
import org.bouncycastle.jce.provider.BouncyCastleProvider;

/**
 * Verifies the signatures of one signer with the openssl command, the JDK and Bouncy Castle. Each gets the bytes that
 * should be signed and trusts only the root. A P7 has to contain the other certificates of the chain, or they are given
 * to the verifier if it contains none.
 */
final class Verifiers {
    private static final Provider BOUNCY_CASTLE = new BouncyCastleProvider();

    /** The names of a digest algorithm in the toolkit, the JDK (digest and signature) and openssl, and its OID. */
    record Digest(String name, String jdkDigest, String jdkSignature, String openSsl, String oid) {}

    /** Gets the bytes that a verifier found signed; empty if it rejects the signature. */
    private interface Answer {
        Optional<byte[]> get() throws Exception;
    }

    /** The answer of a verifier. */
    record Opinion(String verifier, Optional<byte[]> content) {}

    private final X509Certificate certificate;
    private final X509Certificate root;
    private final Path directory;
    private final OpenSslCommand openSsl;

    /**
     * @param chain the signer's certificate first, the root last
     * @param directory for openssl's files; each signer needs its own
     */
    Verifiers(List<X509Certificate> chain, Path directory) throws Exception {
        certificate = chain.get(0);
        root = chain.get(chain.size() - 1);
        this.directory = directory;
        openSsl = new OpenSslCommand(directory);
        openSsl.writePem("root.pem", "CERTIFICATE", root.getEncoded());
        StringBuilder authorities = new StringBuilder();
        for (X509Certificate authority : chain.subList(1, chain.size())) {
            authorities.append(TestStore.pem("CERTIFICATE", authority.getEncoded()));
        }
        Files.writeString(directory.resolve("authorities.pem"), authorities);
        openSsl.writeCertificate(certificate);
        openSsl.writePem("public.pem", "PUBLIC KEY", certificate.getPublicKey().getEncoded());
    }

    List<Opinion> onP1(byte[] signature, byte[] content, Digest digest) throws Exception {
        openSsl.write("content", content);
        openSsl.write("signature", signature);
        boolean openSslSays = openSsl.accepts("dgst", "-" + digest.openSsl(), "-verify", "public.pem", "-signature",
            "signature", "content");
        return List.of(
            new Opinion("openssl", openSslSays ? Optional.of(content) : Optional.empty()),
            opinion("JDK", () -> contentIf(isP1Good(signature, content, digest, null), content)),
            opinion("Bouncy Castle", () -> contentIf(isP1Good(signature, content, digest, BOUNCY_CASTLE), content)));
    }

    /**
     * @param content the content of a detached signature; null for an attached one
     * @param hasCertificates whether the signature should contain all that a verifier needs except the root
     */
    List<Opinion> onP7(byte[] der, byte[] content, Digest digest, boolean hasCertificates) throws Exception {
        openSsl.write("p7", der);
        Path recovered = directory.resolve("recovered");
        Files.deleteIfExists(recovered);
        List<String> arguments = new ArrayList<>(List.of("cms", "-verify", "-binary", "-inform", "DER", "-in", "p7",
            "-CAfile", hasCertificates ? "root.pem" : "authorities.pem", "-out", "recovered"));
        if (!hasCertificates) {
            arguments.addAll(List.of("-certfile", "cert.pem"));
        }
        if (content != null) {
            openSsl.write("content", content);
            arguments.addAll(List.of("-content", "content"));
        }
        boolean openSslSays = openSsl.accepts(arguments.toArray(new String[0]));
        return List.of(
            new Opinion("openssl", openSslSays ? Optional.of(Files.readAllBytes(recovered)) : Optional.empty()),
            opinion("JDK", () -> verifiedByTheJdk(der, content, digest, hasCertificates)),
            opinion("Bouncy Castle", () -> verifiedByBouncyCastle(der, content, hasCertificates)));
    }

    private static Optional<byte[]> contentIf(boolean good, byte[] content) {
        return good ? Optional.of(content) : Optional.empty();
    }

    /** An exception of any kind is a rejection: parsers throw their own when a signature is malformed. */
    private static Opinion opinion(String verifier, Answer answer) {
        try {
            return new Opinion(verifier, answer.get());
        } catch (Exception e) {
            return new Opinion(verifier, Optional.empty());
        }
    }

    /** @param provider null for the JDK's providers */
    private boolean isP1Good(byte[] signature, byte[] content, Digest digest, Provider provider)
            throws GeneralSecurityException {
        boolean rsa = certificate.getPublicKey().getAlgorithm().equals("RSA");
        Signature verifier = signature(digest.jdkSignature() + (rsa ? "withRSA" : "withECDSA"), provider);
        byte[] input = content;
        if (verifier == null && !rsa) {
            // Some digests have no name of a signature algorithm with ECDSA.
            verifier = signature("NONEwithECDSA", provider);
            input = MessageDigest.getInstance(digest.jdkDigest()).digest(content);
        }
        verifier.initVerify(certificate.getPublicKey());
        verifier.update(input);
        return verifier.verify(signature);
    }

    private static Signature signature(String name, Provider provider) {
        try {
            if (provider == null) {
                return Signature.getInstance(name);
            }
            return Signature.getInstance(name.replace("512/224", "512(224)").replace("512/256", "512(256)"), provider);
        } catch (NoSuchAlgorithmException e) {
            return null;
        }
    }

    private static CMSSignedData parse(byte[] der, byte[] content) throws CMSException {
        return content == null ? new CMSSignedData(der)
                               : new CMSSignedData(new CMSProcessableByteArray(content), der);
    }

    private static SignerInformation onlySigner(CMSSignedData signed) throws CMSException {
        Collection<SignerInformation> signers = signed.getSignerInfos().getSigners();
        if (signers.size() != 1) {
            throw new CMSException(signers.size() + " signers");
        }
        return signers.iterator().next();
    }

    private static byte[] contentOf(CMSSignedData signed) throws CMSException {
        CMSTypedData content = signed.getSignedContent();
        if (content == null) {
            throw new CMSException("no content");
        }
        return (byte[]) content.getContent();
    }

    private Optional<byte[]> verifiedByBouncyCastle(byte[] der, byte[] content, boolean hasCertificates)
            throws Exception {
        if (hasCertificates) {
            Signatures.requirePath(der, certificate, root, BOUNCY_CASTLE);
        }
        CMSSignedData signed = parse(der, content);
        return contentIf(onlySigner(signed).verify(
            new JcaSimpleSignerInfoVerifierBuilder().setProvider(BOUNCY_CASTLE).build(certificate)),
            contentOf(signed));
    }

    /**
     * Follows RFC 5652 section 5.4 with the JDK's digests and signatures: the signed attributes contain the content's
     * digest, and the signature is over them. Bouncy Castle parses the structure, because the JDK has no public parser.
     */
    private Optional<byte[]> verifiedByTheJdk(byte[] der, byte[] content, Digest digest, boolean hasCertificates)
            throws Exception {
        if (hasCertificates) {
            Signatures.requirePath(der, certificate, root, Security.getProvider("SUN"));
        }
        CMSSignedData signed = parse(der, content);
        SignerInformation signer = onlySigner(signed);
        byte[] contained = contentOf(signed);
        byte[] named = ASN1OctetString.getInstance(
            signer.getSignedAttributes().get(CMSAttributes.messageDigest).getAttrValues().getObjectAt(0)).getOctets();
        boolean good = Arrays.equals(named, MessageDigest.getInstance(digest.jdkDigest()).digest(contained))
            && isP1Good(signer.getSignature(), signer.getEncodedSignedAttributes(), digest, null);
        return contentIf(good, contained);
    }

    /**
     * Verifies with the JDK's reader of signed jars, which is not public. The signature has to contain the certificate.
     *
     * @param content the content of a detached signature; null for an attached one
     */
    static boolean isGoodForJars(byte[] der, byte[] content) throws ReflectiveOperationException {
        Class<?> type = Class.forName("sun.security.pkcs.PKCS7");
        try {
            Object parsed = type.getConstructor(byte[].class).newInstance(der);
            Object[] signers = (Object[]) type.getMethod("verify", byte[].class).invoke(parsed, content);
            return signers != null && signers.length == 1;
        } catch (InvocationTargetException e) {
            return false;
        }
    }
}
