package vex.jni;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertNull;

import java.util.function.Function;
import java.util.stream.Stream;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;
import org.junit.jupiter.params.provider.NullAndEmptySource;
import org.junit.jupiter.params.provider.ValueSource;

/** What each native refuses without asking the toolkit, and what it then returns. */
@Tag("natives")
class ArgumentRulesTest {
    private static final TAVClientJNI NATIVES = Client.NATIVES;

    /** A native with fixed text arguments, and the value that it returns when it refuses. */
    private record Call(String name, Object refusal, Function<Long, Object> ofHandle) {
        @Override
        public String toString() {
            return name;
        }
    }

    /** Every native that takes a handle and refuses handle 0, with good other arguments. */
    static Stream<Call> callsWithHandle() {
        return Stream.of(
            new Call("SetDigestAlg", 1L, handle -> NATIVES.SetDigestAlg(handle, "SHA256")),
            new Call("SetChooseSingleCert", 1L, handle -> NATIVES.SetChooseSingleCert(handle, 0)),
            new Call("AddFilter", 1L, handle -> NATIVES.AddFilter(handle, TAVClientJNI.FILTER_KEY_ALGORITHM, "RSA")),
            new Call("ClearFilter", 1L, handle -> NATIVES.ClearFilter(handle)),
            new Call("P1Sign", null, handle -> NATIVES.P1Sign(handle, "dGV4dA==")),
            new Call("P1SignString", null, handle -> NATIVES.P1SignString(handle, "text")),
            new Call("P7Sign", null, handle -> NATIVES.P7Sign(handle, "dGV4dA==", 1, 1)),
            new Call("P7SignString", null, handle -> NATIVES.P7SignString(handle, "text", 1, 1)),
            new Call("GetCertList", null, handle -> NATIVES.GetCertList(handle)),
            new Call("Finalize", 1L, handle -> NATIVES.Finalize(handle)));
    }

    /** Every native that takes a text, with a null and with an empty one. */
    static Stream<Call> callsWithoutText() {
        return Stream.of(null, "").flatMap(text -> Stream.of(
            new Call("SetDigestAlg " + text, 1L, handle -> NATIVES.SetDigestAlg(handle, text)),
            new Call("AddFilter " + text, 1L, handle -> NATIVES.AddFilter(handle, TAVClientJNI.FILTER_SUBJECT, text)),
            new Call("P1Sign " + text, null, handle -> NATIVES.P1Sign(handle, text)),
            new Call("P1SignString " + text, null, handle -> NATIVES.P1SignString(handle, text)),
            new Call("P7Sign " + text, null, handle -> NATIVES.P7Sign(handle, text, 1, 1)),
            new Call("P7SignString " + text, null, handle -> NATIVES.P7SignString(handle, text, 1, 1))));
    }

    @ParameterizedTest
    @MethodSource("callsWithHandle")
    void refusesHandleZero(Call call) {
        assertEquals(call.refusal(), call.ofHandle().apply(0L));
    }

    @ParameterizedTest
    @MethodSource("callsWithHandle")
    void acceptsAnOpenHandle(Call call) {
        // Shows that the other arguments are good, so that the handle is the reason for the refusals.
        long handle = NATIVES.Initialize(null, "demo:");
        Object result = call.ofHandle().apply(handle);
        if (!call.name().equals("Finalize")) {
            assertEquals(0, NATIVES.Finalize(handle));
        }
        assertNotEquals(call.refusal(), result);
    }

    @ParameterizedTest
    @MethodSource("callsWithHandle")
    void refusesUnknownHandlesWithAnErrorNumber(Call call) {
        for (long handle : new long[] {1, -1, 4711, Long.MIN_VALUE, Long.MAX_VALUE}) {
            assertEquals(call.refusal(), call.ofHandle().apply(handle));
            assertEquals(VCTKError.INVALID_HANDLE, NATIVES.GetLastError(handle));
        }
    }

    @ParameterizedTest
    @MethodSource("callsWithHandle")
    void refusesAFinalizedHandleWithAnErrorNumberAndText(Call call) {
        long handle = NATIVES.Initialize(null, "demo:");
        assertEquals(0, NATIVES.Finalize(handle));

        assertEquals(call.refusal(), call.ofHandle().apply(handle));
        assertEquals(VCTKError.INVALID_HANDLE, NATIVES.GetLastError(handle));
        assertEquals(VCTKError.message(VCTKError.INVALID_HANDLE), NATIVES.GetLastErrorMessage(handle));
    }

    @ParameterizedTest
    @MethodSource("callsWithoutText")
    void refusesAMissingTextWithoutAskingTheToolkit(Call call) {
        try (Client client = Client.openDemo()) {
            assertEquals(1, NATIVES.SetDigestAlg(client.handle(), "MD5"));
            assertEquals(call.refusal(), call.ofHandle().apply(client.handle()));
            assertEquals(VCTKError.DIGEST_WEAK, client.lastError(), "a call of the toolkit would have replaced it");
        }
    }

    @ParameterizedTest
    @NullAndEmptySource
    @ValueSource(strings = "anything")
    void initializeNeedsOnlyItsSecondText(String unused) {
        assertEquals(0, NATIVES.Initialize(unused, null));
        assertEquals(0, NATIVES.Initialize(unused, ""));
        long handle = NATIVES.Initialize(unused, "demo:");
        assertNotEquals(0, handle);
        assertEquals(0, NATIVES.Finalize(handle));
    }

    @Test
    void handleZeroHasAnErrorNumberButNoTextAndNoCertificate() {
        assertEquals(0, NATIVES.Initialize(null, "gopher:"));
        assertEquals(VCTKError.URI_SCHEME, NATIVES.GetLastError(0));
        assertNull(NATIVES.GetLastErrorMessage(0));
        assertNull(NATIVES.GetSignCert(0));
    }

    @Test
    void keepsObjectsIndependent() {
        try (Client rsa = Client.openDemo(Client.RSA); Client ec = Client.openDemo(Client.EC)) {
            assertNotEquals(rsa.handle(), ec.handle());
            assertEquals(1, NATIVES.SetDigestAlg(rsa.handle(), "MD5"));
            assertEquals(VCTKError.DIGEST_WEAK, rsa.lastError());
            assertEquals(VCTKError.OK, ec.lastError());
            assertNotEquals(rsa.certificateList(), ec.certificateList());
        }
    }
}
