package vex.interop;

import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assertions.fail;

import java.nio.charset.StandardCharsets;
import java.security.Provider;
import java.util.ArrayList;
import java.util.List;
import org.bouncycastle.asn1.x500.X500Name;
import org.bouncycastle.cert.jcajce.JcaCertStore;
import org.bouncycastle.cms.CMSProcessableByteArray;
import org.bouncycastle.cms.CMSSignedData;
import org.bouncycastle.cms.CMSSignedDataGenerator;
import org.bouncycastle.cms.CMSSignerDigestMismatchException;
import org.bouncycastle.cms.SignerInformation;
import org.bouncycastle.cms.jcajce.JcaSignerInfoGeneratorBuilder;
import org.bouncycastle.cms.jcajce.JcaSimpleSignerInfoVerifierBuilder;
import org.bouncycastle.jce.provider.BouncyCastleProvider;
import org.bouncycastle.operator.ContentSigner;
import org.bouncycastle.operator.jcajce.JcaContentSignerBuilder;
import org.bouncycastle.operator.jcajce.JcaDigestCalculatorProviderBuilder;
import org.bouncycastle.pkcs.jcajce.JcaPKCS10CertificationRequestBuilder;
import vex.jni.Signatures;
import vex.jni.TestStore;

/** Bouncy Castle's generators of CMS signatures and of requests. */
final class BouncyCastle {
    /** Not among the JVM's providers, so that it is used where it is named only. */
    static final Provider PROVIDER = new BouncyCastleProvider();

    private static final byte[] DATA = "I owe you 100 euros.".getBytes(StandardCharsets.UTF_8);

    private BouncyCastle() {}

    /** The key selects the provider. Keys of the JDK need a named one: it has no SHA256withRSAandMGF1. */
    private static ContentSigner contentSigner(Signer signer) throws Exception {
        JcaContentSignerBuilder builder = new JcaContentSignerBuilder(signer.kind().signatureName());
        return (signer.ours() ? builder : builder.setProvider(PROVIDER)).build(signer.key());
    }

    static void cms(Signer signer) throws Exception {
        check(signer, BouncyCastle::verify);
    }

    static void cmsVerifiedByOpenSsl(Signer signer) throws Exception {
        check(signer, BouncyCastle::verifyWithOpenSsl);
    }

    private static void check(Signer signer, CmsVerifier verifier) throws Exception {
        byte[] signature = sign(signer, DATA);
        verifier.verify(signer, signature, DATA);
        byte[] other = DATA.clone();
        other[0] ^= 1;
        assertThrows(AssertionError.class, () -> verifier.verify(signer, signature, other));
    }

    static void request(Signer signer) throws Exception {
        byte[] request = new JcaPKCS10CertificationRequestBuilder(
                X500Name.getInstance(signer.certificate().getSubjectX500Principal().getEncoded()),
                signer.certificate().getPublicKey())
            .build(contentSigner(signer)).getEncoded();
        signer.write("bc.pem", TestStore.pem("CERTIFICATE REQUEST", request).getBytes(StandardCharsets.US_ASCII));
        JdkTools.verifyRequest(signer, "bc.pem");
    }

    /** A detached signature with all certificates except the root's. */
    static byte[] sign(Signer signer, byte[] data) throws Exception {
        CMSSignedDataGenerator generator = new CMSSignedDataGenerator();
        generator.addSignerInfoGenerator(
            new JcaSignerInfoGeneratorBuilder(new JcaDigestCalculatorProviderBuilder().build())
                .build(contentSigner(signer), signer.certificate()));
        generator.addCertificates(new JcaCertStore(signer.withoutRoot()));
        return generator.generate(new CMSProcessableByteArray(data), false).getEncoded();
    }

    /** @param data null for an attached signature */
    static void verify(Signer signer, byte[] signature, byte[] data) throws Exception {
        Signatures.requirePath(signature, signer.certificate(), signer.root(), PROVIDER);
        CMSSignedData signed = data == null ? new CMSSignedData(signature)
                                            : new CMSSignedData(new CMSProcessableByteArray(data), signature);
        SignerInformation information = signed.getSignerInfos().getSigners().iterator().next();
        try {
            assertTrue(information.verify(
                new JcaSimpleSignerInfoVerifierBuilder().setProvider(PROVIDER).build(signer.certificate())));
        } catch (CMSSignerDigestMismatchException e) {
            fail(e);
        }
    }

    /** @param data null for an attached signature */
    static void verifyWithOpenSsl(Signer signer, byte[] signature, byte[] data) throws Exception {
        signer.write("signature", signature);
        List<String> command = new ArrayList<>(List.of("openssl", "cms", "-verify", "-binary", "-inform", "DER", "-in",
            "signature", "-CAfile", "root.pem", "-out", "verified"));
        if (data != null) {
            signer.write("data", data);
            command.addAll(List.of("-content", "data"));
        }
        signer.run(command.toArray(new String[0]));
    }
}
