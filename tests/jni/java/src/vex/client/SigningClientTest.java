package vex.client;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.charset.StandardCharsets;
import java.nio.file.FileSystem;
import java.nio.file.FileSystems;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.PosixFilePermissions;
import java.security.cert.X509Certificate;
import java.util.Base64;
import java.util.List;
import java.util.stream.Stream;
import javax.security.auth.x500.X500Principal;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.MethodSource;
import org.junit.jupiter.params.provider.ValueSource;
import vex.jni.Signatures;
import vex.jni.TestStore;
import vex.jni.VCTKError;

/** What a client signs, with which certificate, and what it refuses. */
@Tag("client")
class SigningClientTest {
    private static final String TEXT = "I owe you 100 €.\r\n漢字😀";
    private static final byte[] TEXT_BYTES = TEXT.getBytes(StandardCharsets.UTF_8);
    private static final byte[] DATA = {0, 1, (byte) 0xff, 0, '\n', (byte) 0x80};

    @TempDir
    private Path directory;

    private static SigningClient openDemo(String keyAlgorithm) throws SigningException {
        return SigningClient.store("demo:").keyAlgorithm(keyAlgorithm).open();
    }

    private static X509Certificate signerOf(SigningClient client) throws Exception {
        return Signatures.certificateIn(client.signCmsAttached("who?"));
    }

    private static String base64(byte[] bytes) {
        return Base64.getEncoder().encodeToString(bytes);
    }

    @ParameterizedTest
    @ValueSource(strings = {"RSA", "EC"})
    void rawSignaturesOfTextsAndBytesVerify(String key) throws Exception {
        try (SigningClient client = openDemo(key)) {
            X509Certificate certificate = signerOf(client);
            assertTrue(Signatures.isP1Good(base64(client.signRaw(TEXT)), TEXT_BYTES, certificate, "SHA256"));
            assertTrue(Signatures.isP1Good(base64(client.signRaw(DATA)), DATA, certificate, "SHA256"));
        }
    }

    @ParameterizedTest
    @CsvSource({"false,false", "false,true", "true,false", "true,true"})
    void cmsSignaturesOfTextsAndBytesVerify(boolean detached, boolean withCertificate) throws Exception {
        CmsOption[] options = withCertificate ? new CmsOption[0] : new CmsOption[] {CmsOption.OMIT_CERTIFICATE};
        try (SigningClient client = openDemo("RSA")) {
            X509Certificate certificate = signerOf(client);
            byte[] ofText = detached ? client.signCmsDetached(TEXT, options) : client.signCmsAttached(TEXT, options);
            byte[] ofData = detached ? client.signCmsDetached(DATA, options) : client.signCmsAttached(DATA, options);
            Signatures.assertP7(base64(ofText), TEXT_BYTES, detached, withCertificate, certificate,
                Signatures.SHA256_OID);
            Signatures.assertP7(base64(ofData), DATA, detached, withCertificate, certificate, Signatures.SHA256_OID);
        }
    }

    @Test
    void usesTheChosenDigest() throws Exception {
        try (SigningClient client = SigningClient.store("demo:").keyAlgorithm(KeyAlgorithm.EC)
                .digest(Digest.SHA_384).open()) {
            byte[] signature = client.signRaw(DATA);
            assertTrue(Signatures.isP1Good(base64(signature), DATA, signerOf(client), "SHA384"));
        }
    }

    @Test
    void refusesOptionsThatExcludeEachOther() throws Exception {
        try (SigningClient client = openDemo("EC")) {
            CmsOption[] both = {CmsOption.OMIT_CERTIFICATE, CmsOption.INCLUDE_CHAIN};
            assertThrows(IllegalArgumentException.class, () -> client.signCmsDetached(DATA, both));
            assertThrows(IllegalArgumentException.class, () -> client.signCmsAttached(TEXT, both));
        }
    }

    @ParameterizedTest
    @CsvSource({"RSA,RSA", "RSA-PSS,RSA_PSS", "EC,EC", "ED25519,ED25519", "ED448,ED448", "ML-DSA-44,OTHER",
        "other,OTHER"})
    void keepsTheNamesOfKeyAlgorithmsThatAreUnknown(String name, KeyAlgorithm algorithm) throws Exception {
        String record = "1 AB 2026-01-01T00:00:00Z 2027-01-01T00:00:00Z " + name + " CN=a CN=b";
        CertificateInfo info = CertificateInfo.parseList(record).get(0);
        assertEquals(algorithm, info.keyAlgorithm());
        assertEquals(name, info.keyAlgorithmName());
    }

    @ParameterizedTest
    @ValueSource(strings = {"AB", "ab", "A:b"})
    void spellsFingerprintsInOneWay(String listed) throws Exception {
        String record = "1 " + listed + " 2026-01-01T00:00:00Z 2027-01-01T00:00:00Z RSA CN=a CN=b";
        assertEquals("AB", CertificateInfo.parseList(record).get(0).fingerprint());
    }

    @Test
    void refusesPathsOfOtherFileSystems() throws Exception {
        try (FileSystem jar = FileSystems.newFileSystem(Path.of(System.getProperty("vex.test.jar")))) {
            Path path = jar.getPath("/META-INF/MANIFEST.MF");
            SigningClient.Builder builder = SigningClient.store("demo:");
            for (Executable setter : List.<Executable>of(() -> SigningClient.file(path), () -> builder.pinFile(path),
                    () -> builder.chainFile(path), () -> builder.timestampAuthority(path),
                    () -> StoreParameter.file(path))) {
                assertThrows(IllegalArgumentException.class, setter);
            }
            try (SigningClient client = builder.open()) {
                assertTrue(client.signCmsDetached(path).length > 0);
            }
        }
    }

    @Test
    void filtersByNoUnknownKeyAlgorithm() {
        SigningClient.Builder builder = SigningClient.store("demo:");
        assertThrows(IllegalArgumentException.class, () -> builder.keyAlgorithm(KeyAlgorithm.OTHER));
    }

    @Test
    void signsALargeText() throws Exception {
        String text = "漢字 text 😀\n".repeat(1 << 16);
        try (SigningClient client = openDemo("EC")) {
            assertTrue(Signatures.isP1Good(base64(client.signRaw(text)), text.getBytes(StandardCharsets.UTF_8),
                signerOf(client), "SHA256"));
        }
    }

    @ParameterizedTest
    @ValueSource(strings = {"", "a\0b", "\0", "a\ud83d", "\ude00b", "\ude00\ud83d"})
    void refusesTextsThatHaveNoEncoding(String text) throws Exception {
        int number = text.isEmpty() ? VCTKError.DATA_EMPTY : VCTKError.INVALID_ARGUMENT;
        try (SigningClient client = openDemo("EC")) {
            assertEquals(number, assertThrows(SigningException.class, () -> client.signRaw(text)).number());
            SigningException e = assertThrows(SigningException.class, () -> client.signCmsAttached(text));
            assertEquals(number, e.number());
            assertTrue(e.getMessage().contains("The text "), e.getMessage());
        }
    }

    @Test
    void refusesEmptyData() throws Exception {
        try (SigningClient client = openDemo("EC")) {
            SigningException e = assertThrows(SigningException.class, () -> client.signRaw(new byte[0]));
            assertEquals(VCTKError.DATA_EMPTY, e.number());
        }
    }

    @Test
    void acceptsAnyCharactersInPinsAndPaths() throws Exception {
        Path store = directory.resolve("a b&c=d#e%20?ä漢;+.p12");
        TestStore.writePkcs12(store, List.of(TestStore.identity("secp256r1", "CN=any", 1, 30, 0)));
        Path pinFile = Files.writeString(directory.resolve("pin & #1"), TestStore.PIN + "\n");
        Files.setPosixFilePermissions(pinFile, PosixFilePermissions.fromString("rw-------"));

        for (SigningClient.Builder builder : List.of(SigningClient.file(store).pin(TestStore.PIN.toCharArray()),
                SigningClient.file(store).pinFile(pinFile))) {
            try (SigningClient client = builder.open()) {
                assertEquals("CN=any", client.certificates().get(0).subjectText());
            }
        }
    }

    @Test
    void addsTheAttributesOfTheBuilderToTheUri() throws Exception {
        assertEquals("file:/a?pin-value=%70%25%c3%a4", StoreText.withPin("file:/a", "p%ä".toCharArray()));
        assertEquals("file:/a?x=y&pin-source=file:/p%26", StoreText.withPinFile("file:/a?x=y", Path.of("/p&")));
    }

    @ParameterizedTest
    @ValueSource(strings = {"\0\0\0\0", "4711\0", "4\000711"})
    void refusesAPinThatWasWipedOrHasUnusedCharacters(String pin) {
        IllegalArgumentException e =
            assertThrows(IllegalArgumentException.class, () -> SigningClient.store("demo:").pin(pin.toCharArray()));
        assertEquals("The PIN has U+0000; pass an array that is as long as the PIN and was not wiped", e.getMessage());
    }

    @Test
    void reportsTheNumberButNoPinWhenOpeningFails() throws Exception {
        Path store = directory.resolve("store.p12");
        TestStore.writePkcs12(store, List.of(TestStore.identity("secp256r1", "CN=any", 1, 30, 0)));
        SigningClient.Builder builder = SigningClient.file(store).pin("wrong-4711".toCharArray());
        assertFalse(builder.toString().contains("4711"));
        SigningException e = assertThrows(SigningException.class, builder::open);
        assertEquals(VCTKError.PIN_WRONG, e.number());
        assertEquals(VCTKError.message(VCTKError.PIN_WRONG) + ": " + store, e.getMessage());
        assertThrows(IllegalStateException.class, builder::open, "the PIN is wiped");

        e = assertThrows(SigningException.class, () -> SigningClient.file(directory.resolve("missing")).open());
        assertEquals(VCTKError.STORE_NOT_FOUND, e.number());
    }

    @Test
    void namesTheRefusedSetting() {
        SigningException e = assertThrows(SigningException.class,
            () -> SigningClient.store("demo:").digest("MD5").open());
        assertEquals(VCTKError.DIGEST_WEAK, e.number());
        assertTrue(e.getMessage().contains("MD5"), e.getMessage());

        e = assertThrows(SigningException.class, () -> SigningClient.store("demo:").keyAlgorithm("DSA").open());
        assertEquals(VCTKError.FILTER_VALUE, e.number());
        assertTrue(e.getMessage().contains("key algorithm \"DSA\""), e.getMessage());
    }

    @Test
    void refusesSeveralCertificatesWhenOneIsWanted() throws Exception {
        try (SigningClient client = SigningClient.store("demo:").singleCertificate().open()) {
            SigningException e = assertThrows(SigningException.class, () -> client.signRaw(DATA));
            assertEquals(VCTKError.SEVERAL_CERTIFICATES, e.number());
            assertTrue(e.getMessage().contains("2 certificates pass"), e.getMessage());
        }
        try (SigningClient client = SigningClient.store("demo:").singleCertificate()
                .keyAlgorithm(KeyAlgorithm.RSA).open()) {
            assertTrue(client.signRaw(DATA).length > 0);
        }
    }

    @Test
    void removesTheLastErrorAfterAFailure() throws Exception {
        try (SigningClient client = SigningClient.store("demo:").singleCertificate().open()) {
            assertThrows(SigningException.class, () -> client.signRaw(DATA));
            long handle = client.session.pool().handles().get(0).number;
            assertEquals(VCTKError.OK, new vex.jni.TAVClientJNI().GetLastError(handle));
            SigningException again = assertThrows(SigningException.class, () -> client.signRaw(DATA));
            assertEquals(VCTKError.SEVERAL_CERTIFICATES, again.number(), "the single choice is unchanged");
        }
    }

    @Test
    void listsTheFieldsOfTheCertificates() throws Exception {
        String subject = "C=DE,O=A\\, B \\+ C\\\\D,OU=\\ edges\\ ,CN=Grüße 漢字";
        List<TestStore.Identity> identities = List.of(
            TestStore.identity("RSA", subject, 0x1234567890L, 30, 0),
            TestStore.identity("secp256r1", "CN=two", 255, 60, 0));
        try (SigningClient client =
                SigningClient.store(TestStore.writePem(directory.resolve("store.pem"), identities)).open()) {
            List<CertificateInfo> list = client.certificates();
            assertEquals(2, list.size());
            for (int i = 0; i < list.size(); ++i) {
                X509Certificate certificate = identities.get(i).certificate();
                CertificateInfo info = list.get(i);
                assertEquals(certificate.getSerialNumber(), info.serial());
                assertEquals(Certificates.fingerprint(certificate), info.fingerprint());
                assertEquals(certificate.getNotBefore().toInstant(), info.notBefore());
                assertEquals(certificate.getNotAfter().toInstant(), info.notAfter());
                assertEquals(certificate.getPublicKey().getAlgorithm(), info.keyAlgorithm().toString());
                assertEquals(certificate.getPublicKey().getAlgorithm(), info.keyAlgorithmName());
                assertEquals(certificate.getSubjectX500Principal(), info.subject());
                assertEquals(certificate.getIssuerX500Principal(), info.issuer());
            }
            assertEquals("CN=two", list.get(1).subjectText());
            assertTrue(list.get(0).subjectText().contains("OU=\\ edges\\ ,O=A\\, B \\+ C\\\\D,C=DE"),
                list.get(0).subjectText());
            assertThrows(UnsupportedOperationException.class, () -> list.remove(0));
        }
    }

    @Test
    void readsAttributeTypesThatJavaHasNoNamesFor() throws Exception {
        String subject = "CN=x,SERIALNUMBER=7,T=Dr.,SURNAME=S,GIVENNAME=G,E=a@b.example,DC=x,UID=u,2.5.4.97=VAT-1,"
            + "2.5.4.17=12345,2.5.4.65=P,2.5.4.15=B,1.3.6.1.4.1.311.60.2.1.3=DE,1.2.3.4=#0c0178";
        TestStore.Identity identity = TestStore.identity("secp256r1", subject, 1, 30, 0);
        String store = TestStore.writePem(directory.resolve("store.pem"), List.of(identity));
        try (SigningClient client = SigningClient.store(store).open()) {
            // The text does not tell the string types of these values, so the principals are not equal.
            assertEquals(identity.certificate().getSubjectX500Principal().toString(),
                client.certificates().get(0).subject().toString());
        }
    }

    static Stream<Arguments> listedNames() {
        return Stream.of(
            Arguments.of("CN=a\\20b,O=c", "CN=a b,O=c"),
            Arguments.of("CN=\\20\\20a\\20\\20", "CN=\\  a \\ "),
            Arguments.of("CN=a\\\\20", "CN=a\\\\20"),
            Arguments.of("CN=a\\,\\20b", "CN=a\\, b"),
            Arguments.of("CN=\\20+O=\\20", "CN=\\ +O=\\ "));
    }

    @ParameterizedTest
    @MethodSource("listedNames")
    void keepsTheEscapesThatANameNeeds(String listed, String text) {
        assertEquals(text, CertificateInfo.toText(listed));
        assertEquals(new X500Principal(listed), new X500Principal(text));
    }

    @Test
    void refusesAnUnknownList() throws Exception {
        assertEquals(List.of(), CertificateInfo.parseList(""));
        for (String list : List.of("x", "1 2 3 4 5 6 7", "01 AB 2026-01-01T00:00:00Z", "\r\n",
                "1 AB 2026-01-01T00:00:00Z 2027-01-01T00:00:00Z RSA CN=a CN=b signs")) {
            assertEquals(VCTKError.INTERNAL,
                assertThrows(SigningException.class, () -> CertificateInfo.parseList(list)).number(), list);
        }
    }

    @Test
    void listsNothingAndRefusesToSignWithoutACertificate() throws Exception {
        try (SigningClient client = SigningClient.store("demo:").subjectContains("nobody").open()) {
            assertEquals(List.of(), client.certificates());
            assertEquals(VCTKError.NO_CERTIFICATE,
                assertThrows(SigningException.class, () -> client.signCmsDetached(DATA)).number());
        }
    }

    @Test
    void doesNotChangeThePinOfTheCaller() {
        char[] pin = {'1', '2'};
        assertThrows(SigningException.class, () -> SigningClient.store("file:/missing").pin(pin).open());
        assertArrayEquals(new char[] {'1', '2'}, pin);
    }
}
