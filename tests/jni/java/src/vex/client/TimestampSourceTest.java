package vex.client;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.atomic.AtomicReference;
import java.util.stream.Stream;
import org.bouncycastle.tsp.TSPAlgorithms;
import org.bouncycastle.tsp.TimeStampRequest;
import org.bouncycastle.tsp.TimeStampRequestGenerator;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.MethodSource;
import vex.client.SigningException.Reason;
import vex.jni.VCTKError;

/** What a source of time stamps does wrong: there is no signature, and the reason says what happened. */
@Tag("client")
class TimestampSourceTest extends TimestampFixture {
    private static Arguments source(String name, String message, TimestampSource source) {
        return Arguments.of(name, message, source);
    }

    private static byte[] otherData() throws IOException {
        TimeStampRequestGenerator generator = new TimeStampRequestGenerator();
        generator.setCertReq(true);
        return authority.grant(generator.generate(TSPAlgorithms.SHA256, new byte[32]));
    }

    /** The digest is the right one, the nonce is not. */
    private static byte[] otherNonce(byte[] request) throws IOException {
        TimeStampRequest original = new TimeStampRequest(request);
        TimeStampRequestGenerator generator = new TimeStampRequestGenerator();
        generator.setCertReq(true);
        return authority.grant(generator.generate(original.getMessageImprintAlgOID(),
            original.getMessageImprintDigest(), original.getNonce().flipBit(3)));
    }

    private static byte[] join(byte[] first, byte[] second) {
        byte[] joined = Arrays.copyOf(first, first.length + second.length);
        System.arraycopy(second, 0, joined, first.length, second.length);
        return joined;
    }

    static Stream<Arguments> badSources() {
        String noReply = "what the TimestampSource returned is no time-stamp reply";
        return Stream.of(
            source("fails", "the line is dead", request -> {
                throw new IOException("the line is dead");
            }),
            source("fails without a message", "java.io.IOException", request -> {
                throw new IOException();
            }),
            source("null", "returned null", request -> null),
            source("nothing", noReply, request -> new byte[0]),
            source("garbage", noReply, request -> new byte[] {1, 2, 3}),
            source("a page", noReply, request -> "<html>".getBytes(StandardCharsets.US_ASCII)),
            source("cut off", noReply, request -> {
                byte[] reply = authority.timestamp(request);
                return Arrays.copyOf(reply, reply.length - 1);
            }),
            source("more behind it", noReply, request -> join(authority.timestamp(request), new byte[1])),
            source("two replies", noReply,
                request -> join(authority.timestamp(request), authority.timestamp(request))),
            source("an empty sequence", "", request -> new byte[] {0x30, 0}),
            source("the request", "", request -> request),
            source("a reply for other data", "", request -> otherData()),
            source("another nonce", "", TimestampSourceTest::otherNonce),
            source("a refusal", "closed on Sundays", request -> authority.refuse("closed on Sundays")));
    }

    @ParameterizedTest(name = "{0}")
    @MethodSource("badSources")
    void aBadReplyMakesNoSignature(String name, String message, TimestampSource bad) throws Exception {
        AtomicReference<TimestampSource> current = new AtomicReference<>(bad);
        try (SigningClient client = open(request -> current.get().timestamp(request))) {
            for (Executable call : List.<Executable>of(() -> client.signCmsDetached(TEXT),
                    () -> client.signCmsAttached(TEXT_BYTES))) {
                SigningException e = assertThrows(SigningException.class, call);
                assertEquals(Reason.TIMESTAMP, e.reason(), e.getMessage());
                assertEquals(VCTKError.TIMESTAMP, e.number());
                assertTrue(e.getMessage().contains(message), e.getMessage());
                assertTrue(e.getMessage().startsWith(VCTKError.message(VCTKError.TIMESTAMP)), e.getMessage());
            }
            current.set(authority);
            authority.requireStamp(client.signCmsDetached(TEXT));
        }
    }

    @Test
    void theFailureOfASourceIsTheCause() throws Exception {
        IOException failure = new IOException("the line is dead");
        try (SigningClient client = open(request -> {
            throw failure;
        })) {
            // Not as an IOException, which would be about the file.
            Path file = Files.write(directory.resolve("content"), TEXT_BYTES);
            assertSame(failure,
                assertThrows(SigningException.class, () -> client.signCmsDetached(file)).getCause());
        }
        try (SigningClient client = open(request -> null)) {
            assertNull(assertThrows(SigningException.class, () -> client.signCmsDetached(TEXT)).getCause());
        }
    }

    /** An error of the program, like those of this package. */
    @Test
    void uncheckedExceptionsOfASourceAreThrown() throws Exception {
        try (SigningClient client = open(request -> {
            throw new UnsupportedOperationException("not yet");
        })) {
            assertThrows(UnsupportedOperationException.class, () -> client.signCmsDetached(TEXT));
            assertThrows(UnsupportedOperationException.class, () -> client.signCmsAttached(TEXT_BYTES));
        }
    }

    @Test
    void aSourceMayChangeTheArraysThatItHas() throws Exception {
        try (SigningClient client = open(request -> {
            byte[] reply = authority.timestamp(request);
            Arrays.fill(request, (byte) 0);
            return reply;
        })) {
            authority.requireStamp(client.signCmsDetached(TEXT));
        }
    }
}
