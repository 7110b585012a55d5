package vex.client;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.ByteArrayInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.NoSuchFileException;
import java.nio.file.Path;
import java.security.MessageDigest;
import java.security.Signature;
import java.security.cert.X509Certificate;
import java.time.Duration;
import java.time.Instant;
import java.time.temporal.ChronoUnit;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.Callable;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.ExecutionException;
import org.bouncycastle.cms.CMSProcessableByteArray;
import org.bouncycastle.cms.CMSSignedData;
import org.bouncycastle.cms.SignerInformation;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;
import org.junit.jupiter.api.function.Executable;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import vex.client.SigningException.Reason;
import vex.jni.Run;
import vex.jni.Signatures;
import vex.jni.TestStore;

/** Signatures with the certificate and the algorithm that made them. */
@Tag("client")
class SigningResultTest {
    private static final String TEXT = "I owe you 100 euros. 漢";
    private static final byte[] DATA = TEXT.getBytes(StandardCharsets.UTF_8);

    @TempDir
    private Path directory;

    private SigningClient.Builder store(OpenSslKeys key, Digest digest, boolean pss) throws Exception {
        Path pem = directory.resolve("store.pem");
        key.write(pem);
        SigningClient.Builder builder = SigningClient.file(pem);
        if (digest != null) {
            builder.digest(digest);
        }
        return pss ? builder.pss() : builder;
    }

    private SigningClient.Builder store(List<TestStore.Identity> identities) throws Exception {
        return SigningClient.store(TestStore.writePem(directory.resolve("store.pem"), identities));
    }

    private static TestStore.Identity identity(String subject, Instant begin, Instant end) throws Exception {
        return TestStore.identity("secp256r1", subject, begin, end);
    }

    /** Verifies as the documentation of the result says. */
    private static boolean verifies(SigningResult result, byte[] signature, byte[] data) throws Exception {
        Signature verifier = Signature.getInstance(result.algorithm());
        if (result.algorithmParameters().isPresent()) {
            verifier.setParameter(result.algorithmParameters().get());
        }
        verifier.initVerify(result.certificate());
        verifier.update(data);
        return verifier.verify(signature);
    }

    // ---- The algorithm ----

    @ParameterizedTest
    @CsvSource({"RSA,,false,SHA256withRSA", "RSA,SHA_384,false,SHA384withRSA",
        "RSA,SHA_512_256,false,SHA512/256withRSA", "RSA,SHA3_256,false,SHA3-256withRSA", "RSA,,true,RSASSA-PSS",
        "RSA,SHA_512,true,RSASSA-PSS",
        "PSS,,false,RSASSA-PSS", "PSS,SHA_384,true,RSASSA-PSS", "PSS_SHA384,SHA_384,false,RSASSA-PSS",
        "EC,,false,SHA256withECDSA", "P384,SHA_384,false,SHA384withECDSA", "P521,SHA_512,false,SHA512withECDSA",
        "EC,SHA_224,false,SHA224withECDSA", "EC,SHA3_384,false,SHA3-384withECDSA", "ED25519,,false,Ed25519",
        "ED448,SHA_384,false,Ed448"})
    void theJdkVerifiesBareSignatures(OpenSslKeys key, Digest digest, boolean pss, String algorithm) throws Exception {
        try (SigningClient client = store(key, digest, pss).open()) {
            List<SigningRequest> requests =
                new ArrayList<>(List.of(SigningRequest.raw(TEXT), SigningRequest.raw(DATA)));
            if (!algorithm.startsWith("Ed")) {
                String name = digest == null ? "SHA-256" : digest.toString();
                requests.add(SigningRequest.digest(MessageDigest.getInstance(name).digest(DATA)));
            }
            for (SigningRequest request : requests) {
                SigningResult result = client.sign(request);
                assertEquals(algorithm, result.algorithm());
                assertEquals(algorithm.equals("RSASSA-PSS"), result.algorithmParameters().isPresent());
                assertTrue(verifies(result, result.signature(), DATA));
                assertFalse(verifies(result, result.signature(), new byte[1]));
            }
        }
    }

    private List<SigningRequest> cmsRequests() throws IOException {
        Path file = Files.write(directory.resolve("content"), DATA);
        InputStream stream = new ByteArrayInputStream(DATA);
        return List.of(SigningRequest.cmsDetached(TEXT), SigningRequest.cmsDetached(DATA),
            SigningRequest.cmsDetached(file), SigningRequest.cmsDetached(stream, CmsOption.OMIT_CERTIFICATE),
            SigningRequest.cmsAttached(TEXT, CmsOption.OMIT_CERTIFICATE), SigningRequest.cmsAttached(DATA),
            SigningRequest.cmsAttached(file, CmsOption.INCLUDE_CHAIN));
    }

    /** Bouncy Castle takes the signature apart, and the JDK verifies it. */
    @ParameterizedTest
    @CsvSource({"RSA,,false,SHA256withRSA", "RSA,SHA_512,false,SHA512withRSA", "RSA,SHA_384,true,RSASSA-PSS",
        "PSS,,false,RSASSA-PSS", "PSS_SHA384,SHA_384,false,RSASSA-PSS", "EC,,false,SHA256withECDSA",
        "P521,SHA_512,false,SHA512withECDSA"})
    void theJdkVerifiesSignerInfos(OpenSslKeys key, Digest digest, boolean pss, String algorithm) throws Exception {
        try (SigningClient client = store(key, digest, pss).open()) {
            int attached = 0;
            for (SigningRequest request : cmsRequests()) {
                SigningResult result = client.sign(request);
                assertEquals(algorithm, result.algorithm());
                CMSSignedData signed = new CMSSignedData(result.signature());
                if (signed.getSignedContent() != null) {
                    ++attached;
                    assertArrayEquals(DATA, (byte[]) signed.getSignedContent().getContent());
                } else {
                    signed = new CMSSignedData(new CMSProcessableByteArray(DATA), result.signature());
                }
                SignerInformation signer = signed.getSignerInfos().getSigners().iterator().next();
                assertTrue(verifies(result, signer.getSignature(), signer.getEncodedSignedAttributes()));
            }
            assertEquals(3, attached);
        }
    }

    // ---- The certificate ----

    @ParameterizedTest
    @CsvSource({"1", "2", "4"})
    void namesTheSignerAndItsIssuers(int length) throws Exception {
        List<TestStore.Identity> chain = TestStore.chain("secp256r1", length);
        TestStore.writeChain(directory.resolve("store.p12"), chain);
        List<X509Certificate> expected =
            chain.subList(0, Math.max(length - 1, 1)).stream().map(TestStore.Identity::certificate).toList();
        try (SigningClient client =
                SigningClient.file(directory.resolve("store.p12")).pin(TestStore.PIN.toCharArray()).open()) {
            SigningResult result = client.sign(SigningRequest.cmsDetached(DATA, CmsOption.INCLUDE_CHAIN));
            assertEquals(expected, result.chain());
            assertSame(result.chain().get(0), result.certificate());
            assertThrows(UnsupportedOperationException.class, () -> result.chain().clear());
            assertEquals(expected.get(0), client.signer());
            assertEquals(expected.get(0), client.certificates().get(0).certificate());
        }
    }

    @Test
    void choosesAsTheToolkitDoes() throws Exception {
        Instant begin = Instant.now().minus(Duration.ofDays(1));
        Instant late = begin.plus(Duration.ofDays(30));
        List<TestStore.Identity> identities = List.of(identity("CN=a", begin, late.minusSeconds(1)),
            identity("CN=b", begin, late), identity("CN=c", begin, late),
            identity("CN=expired", begin, begin.plusSeconds(60)));
        try (SigningClient client = store(identities).open()) {
            byte[] cms = client.signCmsDetached(DATA);
            assertEquals(client.signer(), Signatures.certificateIn(cms));
            assertEquals(identities.get(1).certificate(), client.signer());
            assertEquals(identities.get(1).certificate(), client.sign(SigningRequest.raw(DATA)).certificate());
        }
        try (SigningClient client = store(identities).subjectContains("CN=a").open()) {
            SigningResult result = client.sign(SigningRequest.raw(DATA));
            assertEquals(identities.get(0).certificate(), result.certificate());
            assertTrue(verifies(result, result.signature(), DATA));
        }
    }

    private static <T> CompletableFuture<T> background(Callable<T> work) {
        CompletableFuture<T> result = new CompletableFuture<>();
        new Thread(() -> {
            try {
                result.complete(work.call());
            } catch (Throwable e) {
                result.completeExceptionally(e);
            }
        }).start();
        return result;
    }

    /** A stream whose reader waits. */
    private static final class WaitingStream extends ByteArrayInputStream {
        private final CountDownLatch begun = new CountDownLatch(1);
        private final CountDownLatch released = new CountDownLatch(1);

        WaitingStream(byte[] bytes) {
            super(bytes);
        }

        @Override
        public int read(byte[] bytes, int offset, int length) {
            begun.countDown();
            try {
                released.await();
            } catch (InterruptedException e) {
                throw new AssertionError(e);
            }
            return super.read(bytes, offset, length);
        }
    }

    /** The second certificate becomes valid, and then the first one expires. Meanwhile a file and a stream are read. */
    @Test
    @Timeout(300)
    void theCertificateFitsWhileTheChoiceChanges() throws Exception {
        int seconds = 5;
        while (!fitsWhileTheChoiceChanges(seconds)) {
            seconds *= 2;
            assertTrue(seconds < 100, "both readers did not begin in time");
        }
    }

    /**
     * The second certificate becomes valid after so many seconds. False: the machine was too slow, and that
     * certificate may have been chosen from the beginning.
     */
    private boolean fitsWhileTheChoiceChanges(int seconds) throws Exception {
        Path pipe = directory.resolve("pipe" + seconds);
        Run.of(new ProcessBuilder("mkfifo", pipe.toString())).succeeded();
        Path file = Files.createSymbolicLink(directory.resolve("file" + seconds), pipe);
        WaitingStream stream = new WaitingStream(DATA);
        Instant now = Instant.now();
        Instant change = now.plusSeconds(seconds).truncatedTo(ChronoUnit.SECONDS);
        List<TestStore.Identity> identities = List.of(
            identity("CN=first", now.minusSeconds(60), change.plusSeconds(2)),
            identity("CN=second", change, now.plus(Duration.ofDays(2))));
        X509Certificate second = identities.get(1).certificate();
        try (SigningClient client = store(identities).open();
                SigningClient first = store(identities).subjectContains("CN=first").open()) {
            X509Certificate signer = client.signer();
            CompletableFuture<SigningResult> ofFile =
                background(() -> client.sign(SigningRequest.cmsDetached(file)));
            CompletableFuture<SigningResult> ofStream =
                background(() -> client.sign(SigningRequest.cmsDetached(stream)));
            stream.begun.await();
            try (OutputStream writer = Files.newOutputStream(pipe)) {
                // The pipe is open for reading. The next time, there is a regular file in its place.
                Files.delete(file);
                Files.write(file, DATA);
                if (Instant.now().isAfter(change.minusMillis(500))) {
                    stream.released.countDown();
                    return false;
                }
                assertEquals(identities.get(0).certificate(), signer);
                SigningResult result;
                do {
                    if (Instant.now().isBefore(change.minusMillis(200))) {
                        Thread.sleep(20);  // there is nothing to see yet
                    }
                    result = client.sign(SigningRequest.raw(DATA));
                    assertTrue(verifies(result, result.signature(), DATA));
                } while (!result.certificate().equals(second));
                while (!first.certificates().isEmpty()) {
                    Thread.sleep(20);
                }
                writer.write(DATA);
            }
            // A file can be read once more, for the certificate that signs now. A stream cannot.
            assertEquals(second, ofFile.get().certificate());
            assertEquals(second, Signatures.certificateIn(ofFile.get().signature()));
            stream.released.countDown();
            ExecutionException e = assertThrows(ExecutionException.class, ofStream::get);
            assertEquals(Reason.NO_CERTIFICATE, ((SigningException) e.getCause()).reason());
            assertReason(Reason.NO_CERTIFICATE, "1 expired on", () -> first.sign(SigningRequest.raw(DATA)));
        }
        return true;
    }

    // ---- Refusals ----

    private static void assertReason(Reason reason, String message, Executable call) {
        SigningException e = assertThrows(SigningException.class, call);
        assertEquals(reason, e.reason());
        assertTrue(e.getMessage().contains(message), e.getMessage());
    }

    @Test
    void tellsTheToolkitsReasonForNoChoice() throws Exception {
        InputStream stream = new ByteArrayInputStream(DATA);
        try (SigningClient client = SigningClient.store("demo:").singleCertificate().open()) {
            String message = "2 certificates pass";
            assertReason(Reason.SEVERAL_CERTIFICATES, message, client::signer);
            assertReason(Reason.SEVERAL_CERTIFICATES, message, () -> client.sign(SigningRequest.raw(DATA)));
            assertReason(Reason.SEVERAL_CERTIFICATES, message, () -> client.sign(SigningRequest.cmsDetached(stream)));
        }
        try (SigningClient client = SigningClient.store("demo:").subjectContains("nobody").open()) {
            String message = "2 not passing the filters";
            assertReason(Reason.NO_CERTIFICATE, message, client::signer);
            assertReason(Reason.NO_CERTIFICATE, message, () -> client.sign(SigningRequest.raw(TEXT)));
            assertReason(Reason.NO_CERTIFICATE, message, () -> client.sign(SigningRequest.cmsDetached(stream)));
        }
        assertEquals(DATA.length, stream.available());
    }

    @Test
    void passesOnWhatTheRequestCannot() throws Exception {
        CmsOption[] both = CmsOption.values();
        for (Executable request : List.<Executable>of(() -> SigningRequest.cmsDetached(DATA, both),
                () -> SigningRequest.cmsDetached(TEXT, both), () -> SigningRequest.cmsDetached(directory, both),
                () -> SigningRequest.cmsDetached(new ByteArrayInputStream(DATA), both),
                () -> SigningRequest.cmsAttached(DATA, both), () -> SigningRequest.cmsAttached(TEXT, both),
                () -> SigningRequest.cmsAttached(directory, both))) {
            assertThrows(IllegalArgumentException.class, request);
        }
        try (SigningClient client = SigningClient.store("demo:").keyAlgorithm(KeyAlgorithm.EC).open()) {
            Path missing = directory.resolve("missing");
            assertThrows(NoSuchFileException.class, () -> client.sign(SigningRequest.cmsDetached(missing)));
            assertReason(Reason.DATA_EMPTY, "", () -> client.sign(SigningRequest.raw(new byte[0])));
            assertReason(Reason.TEXT_NOT_ENCODABLE, "U+0000", () -> client.sign(SigningRequest.raw("\0")));
            assertReason(Reason.ARGUMENT_INVALID, "", () -> client.sign(SigningRequest.digest(new byte[31])));
        }
    }
}
