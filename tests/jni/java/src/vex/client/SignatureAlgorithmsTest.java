package vex.client;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.ByteArrayOutputStream;
import java.io.NotSerializableException;
import java.io.ObjectOutputStream;
import java.io.OutputStream;
import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.InvalidAlgorithmParameterException;
import java.security.InvalidKeyException;
import java.security.KeyPair;
import java.security.KeyPairGenerator;
import java.security.KeyStore;
import java.security.MessageDigest;
import java.security.PrivateKey;
import java.security.Provider;
import java.security.Security;
import java.security.Signature;
import java.security.SignatureException;
import java.security.cert.X509Certificate;
import java.security.interfaces.EdECPrivateKey;
import java.security.interfaces.RSAKey;
import java.security.spec.AlgorithmParameterSpec;
import java.security.spec.ECGenParameterSpec;
import java.security.spec.MGF1ParameterSpec;
import java.security.spec.PSSParameterSpec;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.EnumMap;
import java.util.List;
import java.util.Map;
import java.util.stream.Stream;
import java.util.zip.ZipFile;
import javax.crypto.Cipher;
import jdk.security.jarsigner.JarSigner;
import org.bouncycastle.jce.provider.BouncyCastleProvider;
import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.EnumSource;
import org.junit.jupiter.params.provider.MethodSource;
import vex.jni.TestJar;
import vex.jni.VCTKError;

/** Each signature algorithm of the provider, verified by others; its parameters, and what it refuses. */
@Tag("client")
class SignatureAlgorithmsTest {
    private static final byte[] DATA = "some data\0\r\n漢".getBytes(StandardCharsets.UTF_8);
    private static final Provider BOUNCY_CASTLE = new BouncyCastleProvider();

    @TempDir
    private static Path directory;

    private static final Map<OpenSslKeys, X509Certificate> CERTIFICATES = new EnumMap<>(OpenSslKeys.class);
    private static final Map<OpenSslKeys, PrivateKey> KEYS = new EnumMap<>(OpenSslKeys.class);

    @BeforeAll
    static void load() throws Exception {
        Security.addProvider(new SigningProvider());
        for (OpenSslKeys key : OpenSslKeys.values()) {
            if (key != OpenSslKeys.PSS_LONG_SALT) {
                Path file = directory.resolve(key + ".pem");
                CERTIFICATES.put(key, key.write(file));
                KEYS.put(key, onlyKey(file));
            }
        }
    }

    private static PrivateKey onlyKey(Path file) throws Exception {
        KeyStore store = KeyStore.getInstance(SigningProvider.KEY_STORE_TYPE);
        store.load(StoreParameter.file(file));
        assertEquals(1, store.size());
        return (PrivateKey) store.getKey(store.aliases().nextElement(), null);
    }

    @AfterAll
    static void removeProvider() {
        KEYS.clear();  // so that their stores can be closed
        Security.removeProvider(SigningProvider.NAME);
    }

    private static Signature ours(String name) throws Exception {
        return Signature.getInstance(name, SigningProvider.NAME);
    }

    private static Signature ours(String name, OpenSslKeys key) throws Exception {
        Signature signature = ours(name);
        signature.initSign(KEYS.get(key));
        return signature;
    }

    private static byte[] sign(Signature signature, byte[] data) throws Exception {
        signature.update(data);
        return signature.sign();
    }

    private static boolean isGood(Signature verifier, OpenSslKeys key, byte[] data, byte[] signed) throws Exception {
        verifier.initVerify(CERTIFICATES.get(key).getPublicKey());
        verifier.update(data);
        return verifier.verify(signed);
    }

    private static PSSParameterSpec pss(String digest, int salt) {
        return new PSSParameterSpec(digest, "MGF1", new MGF1ParameterSpec(digest), salt, 1);
    }

    private static PSSParameterSpec pss(Digest digest) {
        return pss(digest.toString(), digest.length());
    }

    // ---- Signatures that others verify ----

    /** The name of ours, the key, the name of the verifiers, and their parameters. */
    static Stream<Arguments> algorithms() {
        List<Arguments> rows = new ArrayList<>();
        for (Digest digest : Digest.values()) {
            String name = digest.inSignatures();
            rows.add(Arguments.of(name + "withRSA", OpenSslKeys.RSA, name + "withRSA", null));
            rows.add(Arguments.of(name + "withRSAandMGF1", OpenSslKeys.RSA, "RSASSA-PSS", digest));
            rows.add(Arguments.of(name + "withRSAandMGF1", OpenSslKeys.PSS, "RSASSA-PSS", digest));
            if (!name.contains("/")) {
                for (OpenSslKeys key : List.of(OpenSslKeys.EC, OpenSslKeys.P384, OpenSslKeys.P521)) {
                    rows.add(Arguments.of(name + "withECDSA", key, name + "withECDSA", null));
                    String p1363 = name + "withECDSAinP1363Format";
                    rows.add(Arguments.of(p1363, key, p1363, null));
                }
            }
        }
        rows.add(Arguments.of("SHA384withRSAandMGF1", OpenSslKeys.PSS_SHA384, "RSASSA-PSS", Digest.SHA_384));
        rows.add(Arguments.of("RSASSA-PSS", OpenSslKeys.PSS_SHA384, "RSASSA-PSS", Digest.SHA_384));
        for (String name : List.of("Ed25519", "EdDSA")) {
            rows.add(Arguments.of(name, OpenSslKeys.ED25519, "Ed25519", null));
        }
        for (String name : List.of("Ed448", "EdDSA")) {
            rows.add(Arguments.of(name, OpenSslKeys.ED448, "Ed448", null));
        }
        return rows.stream();
    }

    @ParameterizedTest
    @MethodSource("algorithms")
    void othersVerify(String name, OpenSslKeys key, String verifierName, Digest parameters) throws Exception {
        Signature signature = ours(name, key);
        for (int round = 0; round < 2; ++round) {
            signature.update(DATA[0]);
            signature.update(DATA, 1, 3);
            signature.update(ByteBuffer.wrap(DATA, 4, DATA.length - 4));
            byte[] signed = signature.sign();
            Signature jdk = Signature.getInstance(verifierName);
            String bouncyCastle = verifierName;
            if (parameters != null) {
                jdk.setParameter(pss(parameters));
                bouncyCastle = parameters.inSignatures() + "withRSAandMGF1";
            }
            for (Signature verifier :
                    List.of(jdk, Signature.getInstance(bouncyCastleName(bouncyCastle), BOUNCY_CASTLE))) {
                assertTrue(isGood(verifier, key, DATA, signed), name + " " + verifier.getProvider());
                assertFalse(isGood(verifier, key, Arrays.copyOf(DATA, DATA.length - 1), signed));
            }
        }
    }

    private static String bouncyCastleName(String name) {
        return name.replaceFirst("SHA512/(\\d+)", "SHA512($1)").replace("ECDSAinP1363Format", "PLAIN-ECDSA");
    }

    @ParameterizedTest
    @CsvSource({"NONEwithECDSA,EC", "NONEwithECDSA,P521", "NONEwithECDSAinP1363Format,P384"})
    void signsADigestAsItIs(String name, OpenSslKeys key) throws Exception {
        byte[] digest = MessageDigest.getInstance("SHA-256").digest(DATA);
        byte[] signed = sign(ours(name, key), digest);
        assertTrue(isGood(Signature.getInstance(name), key, digest, signed));
        assertTrue(isGood(Signature.getInstance(name.replace("NONE", "SHA256")), key, DATA, signed));
    }

    @ParameterizedTest
    @CsvSource({"1", "32", "245"})
    void signsBytesWithoutADigestInfo(int length) throws Exception {
        byte[] bytes = new byte[length];
        Arrays.fill(bytes, (byte) 7);
        byte[] signed = sign(ours("NONEwithRSA", OpenSslKeys.RSA), bytes);
        Cipher cipher = Cipher.getInstance("RSA/ECB/PKCS1Padding", "SunJCE");
        cipher.init(Cipher.DECRYPT_MODE, CERTIFICATES.get(OpenSslKeys.RSA).getPublicKey());
        assertArrayEquals(bytes, cipher.doFinal(signed));
    }

    @Test
    void rawAlgorithmsMakeTheSignatureOfTheDigestInfo() throws Exception {
        byte[] digest = MessageDigest.getInstance("SHA-256").digest(DATA);
        ByteArrayOutputStream info = new ByteArrayOutputStream();
        info.writeBytes(new byte[] {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, (byte) 0x86, 0x48, 0x01, 0x65, 0x03, 0x04,
            0x02, 0x01, 0x05, 0x00, 0x04, 0x20});
        info.writeBytes(digest);
        assertArrayEquals(sign(ours("SHA256withRSA", OpenSslKeys.RSA), DATA),
            sign(ours("NONEwithRSA", OpenSslKeys.RSA), info.toByteArray()));
    }

    // ---- Amounts of data ----

    @ParameterizedTest
    @CsvSource({"NONEwithRSA,RSA,245", "NONEwithECDSA,EC,64", "NONEwithECDSAinP1363Format,EC,64"})
    void updateRefusesMoreThanTheKeyCanSign(String name, OpenSslKeys key, int limit) throws Exception {
        Signature signature = ours(name, key);
        assertTrue(sign(signature, new byte[limit]).length > 0);
        signature.update(new byte[limit]);
        SignatureException e = assertThrows(SignatureException.class, () -> signature.update((byte) 0));
        assertEquals(VCTKError.TOO_LARGE, ((SigningException) e.getCause()).number());
        assertThrows(SignatureException.class, signature::sign, "the rest of the data is not signed");
        assertTrue(sign(signature, new byte[limit]).length > 0);
    }

    @ParameterizedTest
    @CsvSource({"SHA256withRSA,RSA", "SHA512withECDSA,EC", "SHA256withRSAandMGF1,PSS"})
    void signsEmptyData(String name, OpenSslKeys key) throws Exception {
        byte[] signed = ours(name, key).sign();
        Signature verifier = Signature.getInstance(name.contains("MGF1") ? "RSASSA-PSS" : name);
        if (name.contains("MGF1")) {
            verifier.setParameter(pss(Digest.SHA_256));
        }
        assertTrue(isGood(verifier, key, new byte[0], signed));
    }

    @ParameterizedTest
    @CsvSource({"Ed25519,ED25519", "NONEwithRSA,RSA", "NONEwithECDSA,EC"})
    void refusesEmptyDataThatTheToolkitWouldGet(String name, OpenSslKeys key) throws Exception {
        SignatureException e = assertThrows(SignatureException.class, ours(name, key)::sign);
        assertEquals(VCTKError.DATA_EMPTY, ((SigningException) e.getCause()).number());
    }

    // ---- Parameters of RSASSA-PSS ----

    @ParameterizedTest
    @EnumSource(Digest.class)
    void pssTakesAndShowsItsParameters(Digest digest) throws Exception {
        for (boolean first : new boolean[] {true, false}) {
            Signature signature = ours("RSASSA-PSS");
            assertNull(signature.getParameters());
            if (first) {
                signature.setParameter(pss(digest));
            }
            signature.initSign(KEYS.get(OpenSslKeys.RSA));
            if (!first) {
                assertThrows(SignatureException.class, () -> signature.update(DATA));
                assertThrows(SignatureException.class, signature::sign);
                signature.setParameter(pss(digest));
            }
            byte[] signed = sign(signature, DATA);
            Signature verifier = Signature.getInstance("RSASSA-PSS", "SunRsaSign");
            verifier.setParameter(signature.getParameters().getParameterSpec(PSSParameterSpec.class));
            assertTrue(isGood(verifier, OpenSslKeys.RSA, DATA, signed));
        }
    }

    /** Parameters, and what the refusal of RSASSA-PSS says is wrong with them. */
    static Stream<Arguments> parametersThatAreNotOffered() {
        return Stream.of(Arguments.of(null, "needs a PSSParameterSpec, not null"),
            Arguments.of(new ECGenParameterSpec("secp256r1"), "needs a PSSParameterSpec"),
            Arguments.of(PSSParameterSpec.DEFAULT, "not SHA-1"),
            Arguments.of(pss("SHA-256", 20), "a salt of 32 bytes, not 20"),
            Arguments.of(pss("SHA-256", 33), "a salt of 32 bytes, not 33"),
            Arguments.of(pss("SHA-1", 20), "not SHA-1"), Arguments.of(pss("MD5", 16), "not MD5"),
            Arguments.of(pss("SHAKE256", 64), "not SHAKE256"),
            Arguments.of(new PSSParameterSpec("SHA-256", "MGF1", MGF1ParameterSpec.SHA1, 32, 1),
                "SHA-256 is offered with MGF1 on SHA-256, not MGF1 on SHA-1"),
            Arguments.of(new PSSParameterSpec("SHA-256", "MGF1", MGF1ParameterSpec.SHA512_256, 32, 1),
                "MGF1 on SHA-256, not MGF1 on SHA-512/256"),
            Arguments.of(new PSSParameterSpec("SHA-256", "MGF1", null, 32, 1), "not MGF1 without a digest"),
            Arguments.of(new PSSParameterSpec("SHA-256", "SHAKE256", null, 32, 1), "not SHAKE256 without a digest"),
            Arguments.of(new PSSParameterSpec("SHA-256", "MGF1", MGF1ParameterSpec.SHA256, 32, 2),
                "the trailer field 1, not 2"));
    }

    @ParameterizedTest
    @MethodSource("parametersThatAreNotOffered")
    void refusesParametersThatAreNotOffered(AlgorithmParameterSpec parameters, String fault) throws Exception {
        for (String name : List.of("RSASSA-PSS", "SHA256withRSAandMGF1", "SHA256withRSA", "SHA256withECDSA")) {
            if (parameters != null || name.contains("PSS") || name.contains("MGF1")) {
                Signature signature = ours(name);
                assertThrows(InvalidAlgorithmParameterException.class, () -> signature.setParameter(parameters), name);
            }
        }
        Signature signature = ours("RSASSA-PSS", OpenSslKeys.RSA);
        signature.setParameter(pss(Digest.SHA_384));
        InvalidAlgorithmParameterException refused =
            assertThrows(InvalidAlgorithmParameterException.class, () -> signature.setParameter(parameters));
        assertTrue(refused.getMessage().contains(fault), refused.getMessage());
        assertEquals("SHA-384",
            signature.getParameters().getParameterSpec(PSSParameterSpec.class).getDigestAlgorithm());
    }

    @Test
    void theNameOfAnAlgorithmFixesItsParameters() throws Exception {
        Signature signature = ours("SHA384withRSAandMGF1", OpenSslKeys.RSA);
        signature.setParameter(pss(Digest.SHA_384));
        assertThrows(InvalidAlgorithmParameterException.class, () -> signature.setParameter(pss(Digest.SHA_256)));
        PSSParameterSpec shown = signature.getParameters().getParameterSpec(PSSParameterSpec.class);
        assertEquals("SHA-384", shown.getDigestAlgorithm());
        assertEquals(48, shown.getSaltLength());
        assertNull(ours("SHA384withRSA", OpenSslKeys.RSA).getParameters());
    }

    @Test
    void parametersDoNotChangeWithinAMessage() throws Exception {
        Signature signature = ours("RSASSA-PSS", OpenSslKeys.RSA);
        signature.setParameter(pss(Digest.SHA_256));
        signature.update(DATA);
        assertThrows(InvalidAlgorithmParameterException.class, () -> signature.setParameter(pss(Digest.SHA_512)));
        signature.setParameter(pss(Digest.SHA_256));
        byte[] signed = signature.sign();
        Signature verifier = Signature.getInstance("RSASSA-PSS");
        verifier.setParameter(pss(Digest.SHA_256));
        assertTrue(isGood(verifier, OpenSslKeys.RSA, DATA, signed));
        signature.setParameter(pss(Digest.SHA_512));
        assertTrue(sign(signature, DATA).length > 0);
    }

    @Test
    void theParametersOfAKeyRestrictTheSignature() throws Exception {
        PrivateKey key = KEYS.get(OpenSslKeys.PSS_SHA384);
        Signature signature = ours("RSASSA-PSS");
        signature.initSign(key);
        assertEquals("SHA-384",
            signature.getParameters().getParameterSpec(PSSParameterSpec.class).getDigestAlgorithm());
        assertThrows(InvalidAlgorithmParameterException.class, () -> signature.setParameter(pss(Digest.SHA_256)));
        assertTrue(sign(signature, DATA).length > 0);
        signature.initSign(KEYS.get(OpenSslKeys.PSS));
        assertThrows(SignatureException.class, signature::sign, "the parameters were those of the first key");

        assertThrows(InvalidKeyException.class, () -> ours("SHA256withRSAandMGF1").initSign(key));
        Signature other = ours("RSASSA-PSS");
        other.setParameter(pss(Digest.SHA_256));
        assertThrows(InvalidKeyException.class, () -> other.initSign(key));
    }

    /** The JDK chooses the algorithm and takes its parameters from the key. */
    @Test
    void signsJarsWithinTheParametersOfAKey() throws Exception {
        X509Certificate certificate = CERTIFICATES.get(OpenSslKeys.PSS_SHA384);
        Path plain = directory.resolve("plain.jar");
        TestJar.write(plain);
        Path signed = directory.resolve("signed.jar");
        try (ZipFile zip = new ZipFile(plain.toFile()); OutputStream output = Files.newOutputStream(signed)) {
            new JarSigner.Builder(new KeyStore.PrivateKeyEntry(
                KEYS.get(OpenSslKeys.PSS_SHA384), new X509Certificate[] {certificate})).build().sign(zip, output);
        }
        TestJar.assertSignedBy(signed, certificate);
    }

    @Test
    void refusesAKeyWhoseParametersAreNotOffered() throws Exception {
        Path file = directory.resolve("long-salt.pem");
        OpenSslKeys.PSS_LONG_SALT.write(file);
        KeyStore store = KeyStore.getInstance(SigningProvider.KEY_STORE_TYPE);
        store.load(StoreParameter.file(file));
        PrivateKey key = (PrivateKey) store.getKey(store.aliases().nextElement(), null);
        InvalidKeyException e = assertThrows(InvalidKeyException.class, () -> ours("RSASSA-PSS").initSign(key));
        assertTrue(e.getMessage().startsWith("The toolkit does not offer the parameters of the "), e.getMessage());
    }

    // ---- Keys ----

    @ParameterizedTest
    @EnumSource(value = OpenSslKeys.class, mode = EnumSource.Mode.EXCLUDE, names = "PSS_LONG_SALT")
    void keysHaveTheAlgorithmOfTheirCertificates(OpenSslKeys key) throws Exception {
        PrivateKey shown = KEYS.get(key);
        assertEquals(CERTIFICATES.get(key).getPublicKey().getAlgorithm(), shown.getAlgorithm());
        assertEquals(shown, new KeyStore.PrivateKeyEntry(shown, new X509Certificate[] {CERTIFICATES.get(key)})
            .getPrivateKey());
        assertNull(shown.getEncoded());
        assertNull(shown.getFormat());
        assertEquals(shown.hashCode(), shown.hashCode());
        assertTrue(shown.toString().contains("in the signing toolkit"), shown::toString);
        assertFalse(shown.isDestroyed());
        NotSerializableException e = assertThrows(NotSerializableException.class,
            () -> new ObjectOutputStream(new ByteArrayOutputStream()).writeObject(shown));
        assertEquals("The key stays in the signing toolkit", e.getMessage());
    }

    @Test
    void keysShowTheirParameters() {
        assertNull(((RSAKey) KEYS.get(OpenSslKeys.PSS)).getParams());
        PSSParameterSpec restricted = (PSSParameterSpec) ((RSAKey) KEYS.get(OpenSslKeys.PSS_SHA384)).getParams();
        assertEquals("SHA-384", restricted.getDigestAlgorithm());
        assertEquals(48, restricted.getSaltLength(), "what it signs with; the certificate allows 20 and more");
        assertEquals("Ed25519", ((EdECPrivateKey) KEYS.get(OpenSslKeys.ED25519)).getParams().getName());
        assertEquals("Ed448", ((EdECPrivateKey) KEYS.get(OpenSslKeys.ED448)).getParams().getName());
        assertTrue(((EdECPrivateKey) KEYS.get(OpenSslKeys.ED448)).getBytes().isEmpty());
    }

    @ParameterizedTest
    @CsvSource({"SHA256withRSA,PSS", "NONEwithRSA,PSS", "SHA256withRSA,EC", "RSASSA-PSS,EC", "SHA256withRSAandMGF1,EC",
        "SHA256withECDSA,RSA", "NONEwithECDSA,RSA", "NONEwithRSA,EC", "Ed25519,ED448", "Ed448,ED25519", "EdDSA,EC",
        "SHA256withECDSA,ED25519"})
    void refusesKeysOfOtherAlgorithms(String name, OpenSslKeys key) throws Exception {
        assertFalse(Security.getProvider(SigningProvider.NAME).getService("Signature", name)
            .supportsParameter(KEYS.get(key)));
        InvalidKeyException e = assertThrows(InvalidKeyException.class, () -> ours(name).initSign(KEYS.get(key)));
        assertTrue(e.getMessage().contains("does not fit"), e.getMessage());
    }

    /** Of the algorithms that have parameters, none is given them before the key. */
    @ParameterizedTest
    @CsvSource({"SHA256withRSA,RSA,RSA", "RSASSA-PSS,RSA,RSA", "RSASSA-PSS,PSS_SHA384,RSASSA-PSS",
        "SHA256withECDSAinP1363Format,EC,EC", "NONEwithECDSA,EC,EC", "Ed25519,ED25519,Ed25519", "EdDSA,ED448,Ed448"})
    void everyKeySelectsItsProviderIfNoneIsNamed(String name, OpenSslKeys key, String generator) throws Exception {
        KeyPair pair = KeyPairGenerator.getInstance(generator).generateKeyPair();
        Provider provider = Security.getProvider(SigningProvider.NAME);
        try {
            for (int place : new int[] {1, Security.getProviders().length}) {
                Security.removeProvider(SigningProvider.NAME);
                Security.insertProviderAt(provider, place);
                Signature signature = Signature.getInstance(name);
                signature.initSign(KEYS.get(key));
                assertEquals(SigningProvider.NAME, signature.getProvider().getName());
                Signature ordinary = Signature.getInstance(name);
                ordinary.initSign(pair.getPrivate());
                assertFalse(ordinary.getProvider().getName().equals(SigningProvider.NAME));
                Signature verifier = Signature.getInstance(name);
                verifier.initVerify(CERTIFICATES.get(key).getPublicKey());
                assertFalse(verifier.getProvider().getName().equals(SigningProvider.NAME));
            }
        } finally {
            Security.removeProvider(SigningProvider.NAME);
            Security.addProvider(provider);
        }
    }

    @Test
    void knowsTheOidsOfTheAlgorithms() throws Exception {
        for (String oid : List.of("1.2.840.113549.1.1.10", "OID.1.2.840.113549.1.1.10", "1.2.840.113549.1.1.15",
                "1.2.840.113549.1.1.16", "1.3.101.112", "1.3.101.113")) {
            assertEquals(SigningProvider.NAME, ours(oid).getProvider().getName());
        }
    }

    @Test
    void othersDoNotSignWithOurKeys() throws Exception {
        assertInstanceOf(EdECPrivateKey.class, KEYS.get(OpenSslKeys.ED25519));
        assertThrows(InvalidKeyException.class,
            () -> Signature.getInstance("Ed25519", "SunEC").initSign(KEYS.get(OpenSslKeys.ED25519)));
        assertThrows(InvalidKeyException.class,
            () -> Signature.getInstance("RSASSA-PSS", "SunRsaSign").initSign(KEYS.get(OpenSslKeys.PSS)));
    }
}
