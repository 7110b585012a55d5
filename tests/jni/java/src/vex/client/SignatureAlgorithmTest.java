package vex.client;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.charset.StandardCharsets;
import java.security.KeyPair;
import java.security.KeyPairGenerator;
import java.security.MessageDigest;
import java.security.Provider;
import java.security.spec.MGF1ParameterSpec;
import java.security.spec.PSSParameterSpec;
import java.util.Arrays;
import java.util.Date;
import java.util.HashMap;
import java.util.HexFormat;
import java.util.List;
import java.util.Map;
import java.util.Optional;
import org.bouncycastle.asn1.ASN1ObjectIdentifier;
import org.bouncycastle.asn1.x500.X500Name;
import org.bouncycastle.cert.X509CRLHolder;
import org.bouncycastle.cert.X509v2CRLBuilder;
import org.bouncycastle.cert.jcajce.JcaX509CertificateHolder;
import org.bouncycastle.cms.CMSProcessableByteArray;
import org.bouncycastle.cms.CMSSignedDataGenerator;
import org.bouncycastle.cms.SignerInfoGeneratorBuilder;
import org.bouncycastle.jce.provider.BouncyCastleProvider;
import org.bouncycastle.operator.ContentSigner;
import org.bouncycastle.operator.jcajce.JcaContentSignerBuilder;
import org.bouncycastle.operator.jcajce.JcaDigestCalculatorProviderBuilder;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.ValueSource;
import vex.jni.TestStore;
import vex.jni.VCTKError;

/** The algorithms of signatures that Bouncy Castle made, which has more of them than the toolkit. */
@Tag("client")
class SignatureAlgorithmTest {
    private static final Provider BOUNCY_CASTLE = new BouncyCastleProvider();
    private static final byte[] DATA = "I owe you 100 euros.".getBytes(StandardCharsets.UTF_8);
    /** One for each kind of key, because an RSA key takes long to make. */
    private static final Map<String, TestStore.Identity> SIGNERS = new HashMap<>();

    private static TestStore.Identity signer(String key) throws Exception {
        if (!SIGNERS.containsKey(key)) {
            SIGNERS.put(key, TestStore.identity(key, "CN=Signer", 1, 30, 0));
        }
        return SIGNERS.get(key);
    }

    /** @param form letters: a attached, c certificate, d direct signature, k key identifier, r revocation list */
    private static byte[] cms(String key, String algorithm, String form) throws Exception {
        TestStore.Identity identity = signer(key);
        ContentSigner signer =
            new JcaContentSignerBuilder(algorithm).setProvider(BOUNCY_CASTLE).build(identity.key());
        SignerInfoGeneratorBuilder info =
            new SignerInfoGeneratorBuilder(new JcaDigestCalculatorProviderBuilder().setProvider(BOUNCY_CASTLE).build());
        info.setDirectSignature(form.contains("d"));
        JcaX509CertificateHolder certificate = new JcaX509CertificateHolder(identity.certificate());
        CMSSignedDataGenerator generator = new CMSSignedDataGenerator();
        byte[] identifier = MessageDigest.getInstance("SHA-1").digest(identity.certificate().getEncoded());
        generator.addSignerInfoGenerator(
            form.contains("k") ? info.build(signer, identifier) : info.build(signer, certificate));
        if (form.contains("c")) {
            generator.addCertificate(certificate);
        }
        if (form.contains("r")) {
            generator.addCRL(revocationList());
        }
        return generator.generate(new CMSProcessableByteArray(DATA), form.contains("a")).getEncoded("DER");
    }

    private static X509CRLHolder revocationList() throws Exception {
        KeyPair pair = KeyPairGenerator.getInstance("EC").generateKeyPair();
        return new X509v2CRLBuilder(new X500Name("CN=CA"), new Date())
            .build(new JcaContentSignerBuilder("SHA256withECDSA").build(pair.getPrivate()));
    }

    @ParameterizedTest
    @CsvSource({"RSA,SHA256withRSA,SHA256withRSA", "RSA,SHA224withRSA,SHA224withRSA",
        "RSA,SHA512withRSA,SHA512withRSA", "RSA,SHA3-512withRSA,SHA3-512withRSA",
        "secp256r1,SHA384withECDSA,SHA384withECDSA", "secp384r1,SHA3-224withECDSA,SHA3-224withECDSA",
        "Ed25519,Ed25519,Ed25519", "Ed448,Ed448,Ed448",
        // Not the toolkit's algorithms: their OIDs.
        "RSA,SHA1withRSA,1.2.840.113549.1.1.1", "secp256r1,SHA1withECDSA,1.2.840.10045.4.1"})
    void tellsTheNameForTheJdk(String key, String made, String told) throws Exception {
        for (String form : List.of("", "a", "c", "ac", "d", "k", "cr", "acdkr")) {
            SignatureAlgorithm algorithm = SignatureAlgorithm.ofCms(cms(key, made, form));
            assertEquals(told, algorithm.name(), form);
            assertEquals(Optional.empty(), algorithm.parameters(), form);
        }
    }

    @ParameterizedTest
    @CsvSource({"SHA256withRSAandMGF1,SHA-256,32", "SHA384withRSAandMGF1,SHA-384,48"})
    void tellsTheParametersOfPss(String made, String digest, int salt) throws Exception {
        SignatureAlgorithm algorithm = SignatureAlgorithm.ofCms(cms("RSA", made, "ac"));
        assertEquals("RSASSA-PSS", algorithm.name());
        PSSParameterSpec parameters = (PSSParameterSpec) algorithm.parameters().orElseThrow();
        assertEquals(digest, parameters.getDigestAlgorithm());
        assertEquals(digest, ((MGF1ParameterSpec) parameters.getMGFParameters()).getDigestAlgorithm());
        assertEquals(salt, parameters.getSaltLength());
    }

    @Test
    void refusesWhatIsNoSignature() throws Exception {
        byte[] good = cms("secp256r1", "SHA256withECDSA", "");
        for (int length = 0; length < good.length; ++length) {
            byte[] cut = Arrays.copyOf(good, length);
            assertEquals(VCTKError.INTERNAL,
                assertThrows(SigningException.class, () -> SignatureAlgorithm.ofCms(cut)).number(), "" + length);
        }
    }

    /** Whatever a damaged signature says, there is no other exception. */
    @Test
    void readsDamagedSignaturesSafely() throws Exception {
        byte[] good = cms("RSA", "SHA256withRSAandMGF1", "");
        int refused = 0;
        for (int i = 0; i < good.length; ++i) {
            for (int value : new int[] {0, 1, 0x30, 0x7f, 0x80, 0x84, 0xa0, 0xff}) {
                byte[] damaged = good.clone();
                damaged[i] = (byte) value;
                try {
                    SignatureAlgorithm.ofCms(damaged);
                } catch (SigningException e) {
                    ++refused;
                }
            }
        }
        assertTrue(refused > 100, refused + " refused");
    }

    @ParameterizedTest
    @ValueSource(strings = {"2.16.840.1.101.3.4.2.1", "1.2.840.113549.1.1.10", "1.3.101.112", "0.39", "2.999.3"})
    void readsObjectIdentifiers(String oid) throws Exception {
        byte[] der = new ASN1ObjectIdentifier(oid).getEncoded();
        assertEquals(oid, new DerReader(der).objectIdentifier());
    }

    /** An arc that does not end, and one that is too large. */
    @ParameterizedTest
    @ValueSource(strings = {"0602 2a81", "060b 2affffffffffffffffff7f"})
    void refusesMalformedObjectIdentifiers(String hex) {
        byte[] der = HexFormat.of().parseHex(hex.replace(" ", ""));
        assertThrows(SigningException.class, () -> new DerReader(der).objectIdentifier());
    }

    @ParameterizedTest
    @CsvSource({"RSA,shake256,shake256withRSA", "EC,SM3,SM3withECDSA", "OTHER,SHA-256,EC"})
    void namesWhatItDoesNotKnow(KeyAlgorithm key, String digest, String name) throws Exception {
        TestStore.Identity identity = TestStore.identity("secp256r1", "CN=x", 1, 30, 0);
        assertEquals(name, SignatureAlgorithm.ofRaw(key, identity.certificate(), digest).name());
    }
}
