package vex.client;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.ByteArrayInputStream;
import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.NotSerializableException;
import java.io.ObjectOutputStream;
import java.io.OutputStream;
import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.PosixFilePermissions;
import java.security.InvalidKeyException;
import java.security.KeyPair;
import java.security.KeyPairGenerator;
import java.security.KeyStore;
import java.security.KeyStoreException;
import java.security.NoSuchAlgorithmException;
import java.security.PrivateKey;
import java.security.Provider;
import java.security.ProviderException;
import java.security.Security;
import java.security.Signature;
import java.security.SignatureException;
import java.security.cert.X509Certificate;
import java.security.interfaces.ECKey;
import java.security.interfaces.ECPublicKey;
import java.security.interfaces.RSAKey;
import java.security.spec.AlgorithmParameterSpec;
import java.security.spec.ECParameterSpec;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;
import java.util.Map;
import java.util.zip.ZipFile;
import javax.security.auth.callback.Callback;
import javax.security.auth.callback.PasswordCallback;
import jdk.security.jarsigner.JarSigner;
import org.bouncycastle.cert.jcajce.JcaCertStore;
import org.bouncycastle.cms.CMSProcessableByteArray;
import org.bouncycastle.cms.CMSSignedData;
import org.bouncycastle.cms.CMSSignedDataGenerator;
import org.bouncycastle.cms.SignerInformation;
import org.bouncycastle.cms.jcajce.JcaSignerInfoGeneratorBuilder;
import org.bouncycastle.cms.jcajce.JcaSimpleSignerInfoVerifierBuilder;
import org.bouncycastle.jce.provider.BouncyCastleProvider;
import org.bouncycastle.operator.ContentSigner;
import org.bouncycastle.operator.jcajce.JcaContentSignerBuilder;
import org.bouncycastle.operator.jcajce.JcaDigestCalculatorProviderBuilder;
import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.ValueSource;
import vex.jni.Signatures;
import vex.jni.TestJar;
import vex.jni.TestStore;
import vex.jni.Together;

/** The toolkit behind java.security: KeyStores, Signatures, and the choice of the provider. */
@Tag("client")
class SigningProviderTest {
    private static final String READ_ONLY = "The toolkit's stores are read only";
    private static final byte[] DATA = "some data\0\r\n漢".getBytes(StandardCharsets.UTF_8);

    @TempDir
    private static Path directory;

    private static TestStore.Identity rsa;
    private static TestStore.Identity ec;
    private static Path file;
    private static KeyStore store;

    @BeforeAll
    static void load() throws Exception {
        Security.addProvider(new SigningProvider());
        rsa = TestStore.identity("RSA", "CN=RSA", 1, 30, 0);
        ec = TestStore.identity("secp256r1", "CN=EC", 2, 30, 0);
        file = directory.resolve("keys.p12");
        TestStore.writePkcs12(file, List.of(rsa, ec));
        store = newStore();
        store.load(StoreParameter.file(file, pin()));
    }

    @AfterAll
    static void removeProvider() {
        store = null;  // so that it can be closed
        Security.removeProvider(SigningProvider.NAME);
    }

    private static KeyStore newStore() throws Exception {
        return KeyStore.getInstance(SigningProvider.KEY_STORE_TYPE);
    }

    private static KeyStore.PasswordProtection pin() {
        return new KeyStore.PasswordProtection(TestStore.PIN.toCharArray());
    }

    private static TestStore.Identity identity(String key) {
        return key.equals("RSA") ? rsa : ec;
    }

    private static PrivateKey key(String algorithm) throws Exception {
        return (PrivateKey) store.getKey(store.getCertificateAlias(identity(algorithm).certificate()), null);
    }

    private static byte[] sign(Signature signature, PrivateKey key, byte[] data) throws Exception {
        signature.initSign(key);
        signature.update(data);
        return signature.sign();
    }

    private static boolean isGood(Signature verifier, String algorithm, byte[] data, byte[] signed) throws Exception {
        verifier.initVerify(identity(algorithm).certificate());
        verifier.update(data);
        return verifier.verify(signed);
    }

    // ---- KeyStore ----

    @Test
    void listsCertificatesAndOpaqueKeys() throws Exception {
        assertEquals(2, store.size());
        for (String algorithm : List.of("RSA", "EC")) {
            X509Certificate certificate = identity(algorithm).certificate();
            String alias = store.getCertificateAlias(certificate);
            assertEquals(algorithm.equals("RSA") ? "key0" : "key1", alias);
            assertTrue(Collections.list(store.aliases()).contains(alias));
            assertTrue(store.isKeyEntry(alias));
            assertFalse(store.isCertificateEntry(alias));
            assertEquals(certificate, store.getCertificate(alias));
            assertArrayEquals(new Object[] {certificate}, store.getCertificateChain(alias));
            assertNotNull(store.getCreationDate(alias));
            assertEquals(certificate, store.getCertificate(alias.toUpperCase()));
            assertEquals(certificate, store.getCertificate(Certificates.fingerprint(certificate)));

            PrivateKey key = key(algorithm);
            assertEquals(algorithm, key.getAlgorithm());
            assertNull(key.getFormat());
            assertNull(key.getEncoded());
            KeyStore.PrivateKeyEntry entry = (KeyStore.PrivateKeyEntry) store.getEntry(alias, null);
            assertEquals(key, entry.getPrivateKey());
            assertThrows(NotSerializableException.class,
                () -> new ObjectOutputStream(new ByteArrayOutputStream()).writeObject(key));
        }
        assertEquals(2048, ((RSAKey) key("RSA")).getModulus().bitLength());
        assertEquals(256, ((ECKey) key("EC")).getParams().getCurve().getField().getFieldSize());
        for (Object absent : new Object[] {store.getKey("x", null), store.getCertificate("x"),
                store.getEntry("x", null), store.getCertificateChain("x"), store.getCreationDate("x")}) {
            assertNull(absent);
        }
    }

    @Test
    void keysReturnTheirParametersThroughEveryInterface() throws Exception {
        AlgorithmParameterSpec curve = ((ECPublicKey) ec.certificate().getPublicKey()).getParams();
        assertNull(((RSAKey) key("RSA")).getParams());
        assertSame(((ECKey) key("EC")).getParams(), asPrivateKey(key("EC")));
        assertEquals(((ECParameterSpec) curve).getOrder(), ((ECKey) key("EC")).getParams().getOrder());
        assertNull(asPrivateKey(key("RSA")));
    }

    /** PrivateKey has this method from Java 22 on; in older releases only the class of the key has it. */
    private static AlgorithmParameterSpec asPrivateKey(PrivateKey key) throws Exception {
        Class<?> type = Runtime.version().feature() >= 22 ? PrivateKey.class : SigningKey.class;
        return (AlgorithmParameterSpec) type.getMethod("getParams").invoke(key);
    }

    @Test
    void refusesToChangeTheStore() throws Exception {
        KeyStore.Entry entry = store.getEntry(store.aliases().nextElement(), null);
        List<Executable> changes = List.of(
            () -> store.deleteEntry("x"),
            () -> store.setCertificateEntry("x", rsa.certificate()),
            () -> store.setKeyEntry("x", rsa.key(), null, new X509Certificate[] {rsa.certificate()}),
            () -> store.setKeyEntry("x", new byte[1], new X509Certificate[] {rsa.certificate()}),
            () -> store.setEntry("x", entry, null),
            () -> store.setEntry("x", entry, new KeyStore.PasswordProtection(new char[] {'x'})));
        for (Executable change : changes) {
            assertEquals(READ_ONLY, assertThrows(KeyStoreException.class, change).getMessage());
        }
        for (Executable write : List.<Executable>of(() -> store.store(null),
                () -> store.store(new ByteArrayOutputStream(), new char[] {'x'}))) {
            assertEquals(READ_ONLY, assertThrows(UnsupportedOperationException.class, write).getMessage());
        }
    }

    @Test
    void opensTheStoreInEveryWay() throws Exception {
        Path pinFile = Files.writeString(directory.resolve("pin"), TestStore.PIN);
        Files.setPosixFilePermissions(pinFile, PosixFilePermissions.fromString("rw-------"));
        char[] pin = TestStore.PIN.toCharArray();
        Provider configured = new SigningProvider().configure("file:" + file);
        KeyStore.CallbackHandlerProtection asking = new KeyStore.CallbackHandlerProtection(callbacks -> {
            for (Callback callback : callbacks) {
                ((PasswordCallback) callback).setPassword(pin);
            }
        });
        KeyStore.LoadStoreParameter other = SigningProviderTest::pin;

        List<KeyStore> stores = List.of(newStore(), newStore(), newStore(), newStore(),
            KeyStore.getInstance(SigningProvider.KEY_STORE_TYPE, configured),
            KeyStore.getInstance(SigningProvider.KEY_STORE_TYPE, configured));
        stores.get(0).load(StoreParameter.file(file, pinFile));
        stores.get(1).load(StoreParameter.file(file, asking));
        stores.get(2).load(StoreParameter.store("file:" + file, pin()));
        stores.get(3).load(new ByteArrayInputStream(("file:" + file + "\n").getBytes(StandardCharsets.UTF_8)), pin);
        stores.get(4).load(null, pin);
        stores.get(5).load(other);
        KeyStore demo = newStore();
        demo.load(StoreParameter.store("demo:", new KeyStore.PasswordProtection(new char[0])));
        assertEquals(2, demo.size(), "an empty PIN means no PIN");
        for (KeyStore loaded : stores) {
            assertEquals(2, loaded.size());
        }
        assertArrayEquals(TestStore.PIN.toCharArray(), pin, "the PIN of the caller is unchanged");
    }

    @Test
    void tellsWhyAStoreCannotBeLoaded() throws Exception {
        IOException e = assertThrows(IOException.class, () -> newStore().load(null, null));
        assertTrue(e.getMessage().contains("No store is named"), e.getMessage());
        e = assertThrows(IOException.class,
            () -> newStore().load(Files.newInputStream(file), TestStore.PIN.toCharArray()));
        assertTrue(e.getMessage().contains("does not hold a store's URI"), e.getMessage());
        e = assertThrows(IOException.class, () -> newStore().load(StoreParameter.store("file:/missing", null)));
        assertInstanceOf(SigningException.class, e.getCause());
    }

    // ---- Signature ----

    @ParameterizedTest
    @CsvSource({"SHA224,RSA", "SHA256,RSA", "SHA384,RSA", "SHA512,RSA", "SHA3-224,RSA", "SHA3-256,RSA", "SHA3-384,RSA",
        "SHA3-512,RSA", "SHA224,EC", "SHA256,EC", "SHA384,EC", "SHA512,EC", "SHA3-224,EC", "SHA3-256,EC",
        "SHA3-384,EC", "SHA3-512,EC"})
    void signaturesVerifyWithAnotherProvider(String digest, String algorithm) throws Exception {
        String name = Signatures.jdkName(digest, algorithm);
        Signature signature = Signature.getInstance(name, SigningProvider.NAME);
        signature.initSign(key(algorithm));
        for (int round = 0; round < 2; ++round) {
            signature.update(DATA[0]);
            signature.update(DATA, 1, DATA.length - 1);
            byte[] signed = signature.sign();

            Signature verifier = Signature.getInstance(name, new BouncyCastleProvider());
            assertTrue(isGood(verifier, algorithm, DATA, signed), name);
        }
    }

    @ParameterizedTest
    @CsvSource({"1.2.840.113549.1.1.11,RSA", "OID.1.2.840.113549.1.1.13,RSA", "1.2.840.10045.4.3.2,EC",
        "sha256withrsa,RSA"})
    void knowsTheOtherNamesOfAlgorithms(String name, String algorithm) throws Exception {
        assertTrue(sign(Signature.getInstance(name, SigningProvider.NAME), key(algorithm), DATA).length > 0);
    }

    @ParameterizedTest
    @ValueSource(strings = {"SHA1withRSA", "MD5withRSA", "SHA1withRSAandMGF1", "SHA1withECDSA", "SHA256withDSA"})
    void offersNoAlgorithmThatTheToolkitLacks(String name) {
        assertThrows(NoSuchAlgorithmException.class, () -> Signature.getInstance(name, SigningProvider.NAME));
    }

    /** docs/troubleshooting.md has the message, which is Java's. */
    @Test
    void javaSaysThatNoProviderSignsWithAnAlgorithmThatIsNotOffered() throws Exception {
        InvalidKeyException e = assertThrows(
            InvalidKeyException.class, () -> Signature.getInstance("SHA1withRSA").initSign(key("RSA")));
        assertTrue(e.getMessage().startsWith("No installed provider supports this key: vex.client.SigningKey"),
            e.getMessage());
    }

    @ParameterizedTest
    @ValueSource(booleans = {false, true})
    void everyKeySelectsItsProviderIfNoneIsNamed(boolean first) throws Exception {
        Security.removeProvider(SigningProvider.NAME);
        if (first) {
            Security.insertProviderAt(new SigningProvider(), 1);
        } else {
            Security.addProvider(new SigningProvider());
        }
        for (String algorithm : List.of("RSA", "EC")) {
            String name = Signatures.jdkName("SHA256", algorithm);
            Signature signature = Signature.getInstance(name);
            byte[] signed = sign(signature, key(algorithm), DATA);
            assertEquals(SigningProvider.NAME, signature.getProvider().getName());
            Signature verifier = Signature.getInstance(name);
            assertTrue(isGood(verifier, algorithm, DATA, signed));
            assertFalse(verifier.getProvider().getName().equals(SigningProvider.NAME));

            KeyPair pair = KeyPairGenerator.getInstance(algorithm).generateKeyPair();
            Signature ordinary = Signature.getInstance(name);
            signed = sign(ordinary, pair.getPrivate(), DATA);
            assertFalse(ordinary.getProvider().getName().equals(SigningProvider.NAME));
            Signature ordinaryVerifier = Signature.getInstance(name);
            ordinaryVerifier.initVerify(pair.getPublic());
            ordinaryVerifier.update(DATA);
            assertTrue(ordinaryVerifier.verify(signed));
        }
    }

    @Test
    void servicesSupportOnlyTheirOwnKeys() throws Exception {
        Provider provider = Security.getProvider(SigningProvider.NAME);
        Provider.Service service = provider.getService("Signature", "SHA256withRSA");
        assertTrue(service.supportsParameter(key("RSA")));
        assertFalse(service.supportsParameter(key("EC")));
        assertFalse(service.supportsParameter(rsa.key()));
        assertFalse(service.supportsParameter(rsa.certificate().getPublicKey()));
        assertTrue(provider.getService("Signature", "SHA256withECDSA").supportsParameter(key("EC")));
    }

    @ParameterizedTest
    @CsvSource({"RSA,SHA256withRSA,EC,SunRsaSign", "EC,SHA256withECDSA,RSA,SunEC"})
    void refusesMisuse(String algorithm, String name, String otherAlgorithm, String jdkProvider) throws Exception {
        TestStore.Identity identity = identity(algorithm);
        Signature signature = Signature.getInstance(name, SigningProvider.NAME);
        assertThrows(InvalidKeyException.class, () -> signature.initVerify(identity.certificate()));
        assertThrows(InvalidKeyException.class, () -> signature.initSign(identity.key()));
        signature.initSign(key(algorithm));
        assertThrows(InvalidKeyException.class, () -> signature.initSign(key(otherAlgorithm)));
        SignatureException afterFailure = assertThrows(SignatureException.class, () -> signature.update(new byte[1]));
        assertEquals("The last initSign failed; call it again", afterFailure.getMessage());
        signature.initSign(key(algorithm));
        assertThrows(SignatureException.class, () -> signature.verify(new byte[1]));
        assertNull(signature.getParameters());
        assertThrows(InvalidKeyException.class,
            () -> Signature.getInstance(name, jdkProvider).initSign(key(algorithm)));
    }

    /** Java keeps the provider that it has chosen for a key, so nothing is left to leave out. */
    @ParameterizedTest
    @CsvSource({"RSA,SHA256withRSA", "EC,SHA256withECDSA"})
    void anObjectThatHasSignedAsksForAnotherOne(String algorithm, String name) throws Exception {
        TestStore.Identity identity = identity(algorithm);
        Signature signature = Signature.getInstance(name);
        signature.initSign(key(algorithm));
        String another = "get another Signature object from Signature.getInstance, without the provider";
        assertEquals("VexClient does not verify signatures; to verify, " + another,
            assertThrows(InvalidKeyException.class, () -> signature.initVerify(identity.certificate())).getMessage());
        assertEquals("The key is not from a KeyStore of the type VexClient; for other keys, " + another,
            assertThrows(InvalidKeyException.class, () -> signature.initSign(identity.key())).getMessage());
    }

    @ParameterizedTest
    @CsvSource({"RSA,NONEwithRSA,245", "EC,NONEwithECDSA,64"})
    void saysHowMuchARawSignatureTakes(String algorithm, String name, int most) throws Exception {
        String expected = "The data to sign has more than " + most + " bytes";
        Signature signature = Signature.getInstance(name, SigningProvider.NAME);
        byte[] data = new byte[most + 1];
        for (ByteBuffer buffer : List.of(ByteBuffer.wrap(data), ByteBuffer.allocateDirect(most + 1))) {
            signature.initSign(key(algorithm));
            assertEquals(expected,
                assertThrows(SignatureException.class, () -> signature.update(data)).getMessage());
            signature.initSign(key(algorithm));
            assertEquals(expected, assertThrows(ProviderException.class, () -> signature.update(buffer)).getMessage());
        }
    }

    @Test
    void updatesWithBuffersOfEveryKind() throws Exception {
        byte[] data = new byte[20_001];
        Arrays.fill(data, (byte) 7);
        Signature signature = Signature.getInstance("SHA256withRSA", SigningProvider.NAME);
        signature.initSign(key("RSA"));
        signature.update(data);
        byte[] expected = signature.sign();
        ByteBuffer direct = ByteBuffer.allocateDirect(data.length).put(data).flip();
        for (ByteBuffer buffer : List.of(ByteBuffer.wrap(data), ByteBuffer.wrap(data).asReadOnlyBuffer(), direct)) {
            signature.update(buffer);
            assertFalse(buffer.hasRemaining());
            assertArrayEquals(expected, signature.sign());
        }
    }

    /** A program may have one for each store, and keep what belongs to them in a map. */
    @Test
    void providersAreEqualOnlyToThemselves() {
        Provider one = new SigningProvider("file:/one.p12");
        Provider two = new SigningProvider("file:/two.p12");
        assertNotEquals(one, two);
        assertEquals(Map.of(one, "one", two, "two"), Map.of(two, "two", one, "one"));
        assertEquals(one, one);
    }

    @Test
    void cannotBeSerialized() {
        assertThrows(NotSerializableException.class,
            () -> new ObjectOutputStream(new ByteArrayOutputStream()).writeObject(new SigningProvider()));
    }

    @ParameterizedTest
    @ValueSource(strings = {"RSA", "EC"})
    void bouncyCastleMakesCmsThroughTheProvider(String algorithm) throws Exception {
        X509Certificate certificate = identity(algorithm).certificate();
        ContentSigner signer = new JcaContentSignerBuilder(Signatures.jdkName("SHA384", algorithm))
            .setProvider(SigningProvider.NAME)
            .build(key(algorithm));
        CMSSignedDataGenerator generator = new CMSSignedDataGenerator();
        generator.addSignerInfoGenerator(
            new JcaSignerInfoGeneratorBuilder(new JcaDigestCalculatorProviderBuilder().build())
                .build(signer, certificate));
        generator.addCertificates(new JcaCertStore(List.of(certificate)));
        byte[] der = generator.generate(new CMSProcessableByteArray(DATA), true).getEncoded();

        CMSSignedData signed = new CMSSignedData(der);
        assertArrayEquals(DATA, (byte[]) signed.getSignedContent().getContent());
        SignerInformation information = signed.getSignerInfos().getSigners().iterator().next();
        assertTrue(information.verify(
            new JcaSimpleSignerInfoVerifierBuilder().setProvider(new BouncyCastleProvider()).build(certificate)));
    }

    @ParameterizedTest
    @ValueSource(strings = {"RSA", "EC"})
    void signsJars(String algorithm) throws Exception {
        X509Certificate certificate = identity(algorithm).certificate();
        Path plain = directory.resolve("plain.jar");
        TestJar.write(plain);
        Path signed = directory.resolve("signed.jar");
        KeyStore.PrivateKeyEntry entry = (KeyStore.PrivateKeyEntry) store.getEntry(
            store.getCertificateAlias(certificate), null);
        try (ZipFile zip = new ZipFile(plain.toFile()); OutputStream output = Files.newOutputStream(signed)) {
            new JarSigner.Builder(entry).build().sign(zip, output);
        }
        TestJar.assertSignedBy(signed, certificate);
    }

    @Test
    void manyThreadsShareAKeyStore() throws Exception {
        Together.run(16, thread -> {
            String algorithm = thread % 2 == 0 ? "RSA" : "EC";
            String name = Signatures.jdkName(thread % 4 < 2 ? "SHA256" : "SHA512", algorithm);
            for (int i = 0; i < 30; ++i) {
                byte[] data = (thread + " " + i).getBytes(StandardCharsets.UTF_8);
                byte[] signed = sign(Signature.getInstance(name, SigningProvider.NAME), key(algorithm), data);
                assertTrue(isGood(Signature.getInstance(name), algorithm, data, signed));
            }
        });
    }

    @ParameterizedTest
    @ValueSource(strings = {"RSA", "EC"})
    void keepsTheStoreOpenForAKey(String algorithm) throws Exception {
        PrivateKey key = keyOfAForgottenStore(algorithm);
        for (int i = 0; i < 3; ++i) {
            System.gc();
            Signature signature = Signature.getInstance(Signatures.jdkName("SHA256", algorithm));
            assertTrue(sign(signature, key, DATA).length > 0);
        }
    }

    private static PrivateKey keyOfAForgottenStore(String algorithm) throws Exception {
        KeyStore other = newStore();
        other.load(StoreParameter.file(file, pin()));
        return (PrivateKey) other.getKey(other.getCertificateAlias(identity(algorithm).certificate()), null);
    }
}
