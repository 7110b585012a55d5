package vex.client;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.ByteArrayInputStream;
import java.io.FilterInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.RandomAccessFile;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.NoSuchFileException;
import java.nio.file.Path;
import java.security.MessageDigest;
import java.security.Signature;
import java.security.cert.X509Certificate;
import java.security.spec.MGF1ParameterSpec;
import java.security.spec.PSSParameterSpec;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Base64;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.Random;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.atomic.AtomicBoolean;
import org.bouncycastle.cms.CMSProcessableFile;
import org.bouncycastle.cms.CMSSignedData;
import org.bouncycastle.cms.jcajce.JcaSimpleSignerInfoVerifierBuilder;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.ValueSource;
import vex.jni.OpenSslCommand;
import vex.jni.Run;
import vex.jni.Signatures;
import vex.jni.TestStore;
import vex.jni.Together;
import vex.jni.VCTKError;

/** Signatures of files, streams and digests. */
@Tag("client")
class ContentTest {
    private static final byte[] DATA = "I owe you 100 euros.\r\n漢".getBytes(StandardCharsets.UTF_8);
    private static final String SHA384_OID = "2.16.840.1.101.3.4.2.2";

    @TempDir
    private Path directory;

    private X509Certificate certificate;

    private SigningClient.Builder store(OpenSslKeys key) throws Exception {
        Path pem = directory.resolve(key + ".pem");
        certificate = key.write(pem);
        return SigningClient.file(pem);
    }

    private Path write(byte[] content) throws IOException {
        return Files.write(directory.resolve("content"), content);
    }

    private static String base64(byte[] bytes) {
        return Base64.getEncoder().encodeToString(bytes);
    }

    private static byte[] digest(String name) throws Exception {
        return MessageDigest.getInstance(name).digest(DATA);
    }

    private static byte[] random(int length) {
        byte[] bytes = new byte[length];
        new Random(length).nextBytes(bytes);
        return bytes;
    }

    private boolean isGood(String algorithm, byte[] signature) throws Exception {
        Signature verifier = Signature.getInstance(algorithm);
        verifier.initVerify(certificate);
        verifier.update(DATA);
        return verifier.verify(signature);
    }

    // ---- Files and streams ----

    @ParameterizedTest
    @CsvSource({"RSA,1", "RSA,300000", "EC,20", "EC,131072", "EC,131073", "PSS,300000"})
    void detachedSignaturesOfFilesAndStreamsVerify(OpenSslKeys key, int length) throws Exception {
        byte[] content = random(length);
        try (SigningClient client = store(key).open()) {
            for (byte[] cms : List.of(client.signCmsDetached(write(content), CmsOption.OMIT_CERTIFICATE),
                    client.signCmsDetached(write(content)),
                    client.signCmsDetached(new ByteArrayInputStream(content), CmsOption.OMIT_CERTIFICATE))) {
                boolean included = !Signatures.certificatesIn(cms).isEmpty();
                Signatures.assertP7(base64(cms), content, true, included, certificate, Signatures.SHA256_OID);
            }
        }
    }

    @ParameterizedTest
    @ValueSource(ints = {1, 127, 128, 65535, 65536, 300000})
    void attachedSignaturesOfFilesVerify(int length) throws Exception {
        byte[] content = random(length);
        OpenSslCommand openssl = new OpenSslCommand(directory);
        try (SigningClient client = store(OpenSslKeys.RSA).digest("SHA-384").open()) {
            byte[] cms = client.signCmsAttached(write(content));
            Signatures.assertP7(base64(cms), content, false, true, certificate, SHA384_OID);
            assertEquals(client.signCmsAttached(content).length, cms.length);

            Files.write(directory.resolve("cms.der"), cms);
            openssl.run("cms", "-verify", "-binary", "-inform", "DER", "-in", "cms.der", "-CAfile", "RSA.pem",
                "-purpose", "any", "-out", "verified");
            assertArrayEquals(content, Files.readAllBytes(directory.resolve("verified")));
        }
    }

    @Test
    void signsWhatComesThroughAPipe() throws Exception {
        Path pipe = directory.resolve("pipe");
        Run.of(new ProcessBuilder("mkfifo", pipe.toString())).succeeded();
        byte[] content = random(300000);
        try (SigningClient client = store(OpenSslKeys.EC).open()) {
            for (boolean detached : new boolean[] {false, true}) {
                CompletableFuture<Void> writer = CompletableFuture.runAsync(() -> {
                    try {
                        Files.write(pipe, content);
                    } catch (IOException e) {
                        throw new IllegalStateException(e);
                    }
                });
                byte[] cms = detached ? client.signCmsDetached(pipe) : client.signCmsAttached(pipe);
                writer.join();
                Signatures.assertP7(base64(cms), content, detached, true, certificate, Signatures.SHA256_OID);
            }
        }
    }

    @Test
    void readsAStreamToItsEndAndLeavesItOpen() throws Exception {
        AtomicBoolean closed = new AtomicBoolean();
        InputStream stream = new FilterInputStream(new ByteArrayInputStream(DATA)) {
            @Override
            public int read(byte[] bytes, int offset, int length) throws IOException {
                return super.read(bytes, offset, Math.min(length, 3));
            }

            @Override
            public void close() {
                closed.set(true);
            }
        };
        stream.read();
        try (SigningClient client = store(OpenSslKeys.EC).open()) {
            byte[] cms = client.signCmsDetached(stream, CmsOption.OMIT_CERTIFICATE);
            Signatures.assertP7(base64(cms), Arrays.copyOfRange(DATA, 1, DATA.length), true, false, certificate,
                Signatures.SHA256_OID);
        }
        assertFalse(closed.get());
    }

    private interface FileSigner {
        byte[] sign(Path file, CmsOption... options) throws IOException, SigningException;
    }

    @Test
    void refusesWhatCannotBeSigned() throws Exception {
        try (SigningClient client = store(OpenSslKeys.EC).open()) {
            InputStream stream = new ByteArrayInputStream(DATA);
            CmsOption[] both = CmsOption.values();
            assertThrows(IllegalArgumentException.class, () -> client.signCmsDetached(stream, both));
            assertEquals(DATA.length, stream.available());
            Path empty = write(new byte[0]);
            Path missing = directory.resolve("missing");
            assertThrows(IllegalArgumentException.class, () -> client.signCmsDetached(missing, both));
            assertThrows(IllegalArgumentException.class, () -> client.signCmsAttached(missing, both));
            for (FileSigner signer : List.<FileSigner>of(client::signCmsDetached, client::signCmsAttached)) {
                SigningException e = assertThrows(SigningException.class, () -> signer.sign(empty));
                assertEquals(VCTKError.DATA_EMPTY, e.number());
                assertThrows(NoSuchFileException.class, () -> signer.sign(missing));
                assertThrows(IOException.class, () -> signer.sign(directory));
            }
        }
    }

    @Test
    void noticesAFileThatChangesWhileItIsSigned() throws Exception {
        Path otherEachTime = Path.of("/proc/sys/kernel/random/uuid");
        try (SigningClient client = store(OpenSslKeys.EC).open()) {
            IOException e = assertThrows(IOException.class, () -> client.signCmsAttached(otherEachTime));
            assertTrue(e.getMessage().contains("changed while it was signed"), e.getMessage());
        }
    }

    @Test
    void refusesToAttachMoreThanASignatureHolds() throws Exception {
        Path large = directory.resolve("large");
        try (RandomAccessFile file = new RandomAccessFile(large.toFile(), "rw")) {
            file.setLength(1L << 31);
        }
        try (SigningClient client = store(OpenSslKeys.EC).open()) {
            SigningException e = assertThrows(SigningException.class, () -> client.signCmsAttached(large));
            assertEquals(VCTKError.TOO_LARGE, e.number());
        }
    }

    /** A heap that could not hold the file. */
    @ParameterizedTest
    @ValueSource(strings = {"file", "stream"})
    void signsAFileThatIsLargerThanTheMemory(String way) throws Exception {
        store(OpenSslKeys.RSA);
        Path large = directory.resolve("large");
        try (RandomAccessFile file = new RandomAccessFile(large.toFile(), "rw")) {
            file.setLength(256L << 20);
            file.seek(100 << 20);
            file.write(DATA);
        }
        Path signature = directory.resolve("large.p7s");
        Run run = Run.of(new ProcessBuilder(Run.jdkProgram("java"), "-Xmx24m", "-XX:+UseSerialGC",
            "--enable-native-access=ALL-UNNAMED", "-Dvex.jni.library=" + System.getProperty("vex.jni.library"), "-cp",
            System.getProperty("java.class.path"), LargeFile.class.getName(),
            directory.resolve("RSA.pem").toString(), large.toString(), signature.toString(), way)).succeeded();
        assertTrue(Long.parseLong(run.output().trim()) <= 32 << 10, () -> run.output() + " KiB");
        CMSSignedData signed =
            new CMSSignedData(new CMSProcessableFile(large.toFile()), Files.readAllBytes(signature));
        assertTrue(signed.getSignerInfos().getSigners().iterator().next()
            .verify(new JcaSimpleSignerInfoVerifierBuilder().build(certificate)));
    }

    // ---- Digests ----

    @ParameterizedTest
    @CsvSource({"RSA,SHA-256,SHA256withRSA", "RSA,sha512,SHA512withRSA", "RSA,SHA-512/256,SHA512/256withRSA",
        "RSA,SHA3-256,SHA3-256withRSA", "EC,SHA-256,SHA256withECDSA", "P521,SHA-384,SHA384withECDSA"})
    void aSignedDigestIsASignatureOfTheData(OpenSslKeys key, String name, String algorithm) throws Exception {
        try (SigningClient client = store(key).digest(name).open()) {
            byte[] signature = client.signDigest(digest(Digest.of(name).toString()));
            assertTrue(isGood(algorithm, signature));
            if (key == OpenSslKeys.RSA) {
                assertArrayEquals(client.signRaw(DATA), signature);
            }
        }
    }

    @ParameterizedTest
    @CsvSource({"RSA,SHA-384/PSS,false", "PSS,SHA-384/PSS,false", "RSA,sha384,true", "PSS,SHA-384,true",
        "RSA,SHA-384/pss,true"})
    void theClientSignsWithPssOnRequest(OpenSslKeys key, String digest, boolean pssCalled) throws Exception {
        PSSParameterSpec pss = new PSSParameterSpec("SHA-384", "MGF1", MGF1ParameterSpec.SHA384, 48, 1);
        SigningClient.Builder builder = store(key).digest(digest);
        try (SigningClient client = (pssCalled ? builder.pss() : builder).open()) {
            for (byte[] signature : List.of(client.signDigest(digest("SHA-384")), client.signRaw(DATA))) {
                Signature verifier = Signature.getInstance("RSASSA-PSS");
                verifier.setParameter(pss);
                verifier.initVerify(certificate);
                verifier.update(DATA);
                assertTrue(verifier.verify(signature));
            }
            byte[] cms = client.signCmsDetached(write(DATA), CmsOption.OMIT_CERTIFICATE);
            Signatures.assertP7(base64(cms), DATA, true, false, certificate, SHA384_OID);
        }
    }

    @Test
    void refusesADigestOfAnotherLength() throws Exception {
        try (SigningClient client = store(OpenSslKeys.EC).open()) {
            for (int length : new int[] {31, 33, 48}) {
                SigningException e =
                    assertThrows(SigningException.class, () -> client.signDigest(new byte[length]));
                assertEquals(VCTKError.INVALID_ARGUMENT, e.number());
            }
            assertEquals(VCTKError.DATA_EMPTY,
                assertThrows(SigningException.class, () -> client.signDigest(new byte[0])).number());
            assertTrue(isGood("SHA256withECDSA", client.signRaw(DATA)));
        }
    }

    @Test
    void ed25519SignsDataAndNoDigest() throws Exception {
        try (SigningClient client = store(OpenSslKeys.ED25519).open()) {
            assertTrue(isGood("Ed25519", client.signRaw(DATA)));
            assertEquals(VCTKError.SIGN_FAILED,
                assertThrows(SigningException.class, () -> client.signDigest(digest("SHA-256"))).number());
            assertTrue(isGood("Ed25519", client.signRaw(DATA)));
        }
    }

    /** OpenSSL makes no CMS signature with Ed448. The toolkit's reason shows that it got the data and no digest. */
    @Test
    void edwardsKeysGetTheDataOfFilesAndStreams() throws Exception {
        try (SigningClient client = store(OpenSslKeys.ED448).open()) {
            Path file = write(DATA);
            for (Executable call : List.<Executable>of(() -> client.signCmsAttached(file),
                    () -> client.signCmsDetached(file, CmsOption.OMIT_CERTIFICATE),
                    () -> client.signCmsDetached(new ByteArrayInputStream(DATA), CmsOption.OMIT_CERTIFICATE))) {
                SigningException e = assertThrows(SigningException.class, call);
                assertEquals(VCTKError.SIGN_FAILED, e.number());
                assertTrue(e.getMessage().contains("OpenSSL makes no P7 signature"), e.getMessage());
            }
        }
    }

    @Test
    void aBuilderTakesNoPrehashedName() {
        SigningClient.Builder builder = SigningClient.store("demo:");
        for (String name : List.of("prehashed:SHA-256", "PreHashed:NONE")) {
            assertThrows(IllegalArgumentException.class, () -> builder.digest(name));
        }
    }

    /** The digest algorithm is a setting of the handle, which all threads share. */
    @ParameterizedTest
    @CsvSource({",SHA256", "SHA-384,SHA384"})
    void threadsThatSignDigestsDoNotDisturbOthers(String setting, String digest) throws Exception {
        SigningClient.Builder builder = store(OpenSslKeys.EC);
        try (SigningClient client = setting == null ? builder.open() : builder.digest(setting).open()) {
            byte[] value = digest(Digest.of(digest).toString());
            Together.run(16, thread -> {
                for (int i = 0; i < 50; ++i) {
                    byte[] signature = thread % 2 == 0 ? client.signDigest(value) : client.signRaw(DATA);
                    assertTrue(isGood(digest + "withECDSA", signature));
                }
            });
        }
    }

    // ---- Other toolkits ----

    private String runWithoutDigestNames(OpenSslKeys key, String toolkit) throws Exception {
        store(key);
        Map<String, String> environment = new HashMap<>();
        environment.put("VEX_TEST_WITHOUT", toolkit.equals("pss") ? "prehashed:" : "prehashed: /PSS");
        if (toolkit.equals("any")) {
            environment.put("VEX_TEST_ANY_DIGEST", "yes");
        }
        return ReducedToolkit.run(WithoutDigestNames.class, environment, directory.resolve(key + ".pem").toString())
            .output();
    }

    private static final List<String> CONTENT_IS_COLLECTED = List.of("file: true", "file with content: true",
        "stream: true", "digest: SigningException: The toolkit cannot sign a digest; sign the data with signRaw");

    @ParameterizedTest
    @ValueSource(strings = {"", "pss", "any"})
    void collectsDataIfTheToolkitSignsNoDigests(String toolkit) throws Exception {
        List<String> expected = new ArrayList<>(List.of("SHA256withRSA: true",
            "RSASSA-PSS: "
                + (toolkit.equals("pss") ? "true" : "InvalidKeyException: The toolkit does not offer RSASSA-PSS"),
            "NONEwithRSA: InvalidKeyException: The toolkit does not offer NONEwithRSA",
            "TLS 1.2: TLS_ECDHE_RSA_WITH_AES_256_GCM_SHA384"));
        expected.addAll(CONTENT_IS_COLLECTED);
        assertEquals(expected, runWithoutDigestNames(OpenSslKeys.RSA, toolkit).lines().toList());
    }

    @Test
    void ellipticCurvesNeedNoNewerToolkit() throws Exception {
        List<String> expected = new ArrayList<>(List.of("SHA256withECDSA: true", "P1363: true",
            "empty: SignatureException: There is no data to sign: the data to sign has no bytes"));
        expected.addAll(CONTENT_IS_COLLECTED);
        assertEquals(expected, runWithoutDigestNames(OpenSslKeys.EC, "").lines().toList());
    }
}
