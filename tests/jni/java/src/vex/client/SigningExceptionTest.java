package vex.client;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.lang.reflect.Field;
import java.util.EnumSet;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Set;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.ValueSource;
import vex.client.SigningException.Reason;
import vex.jni.VCTKError;

/** The reasons of failures, and their numbers. */
@Tag("client")
class SigningExceptionTest {
    private static Map<String, Integer> numbers() throws ReflectiveOperationException {
        Map<String, Integer> numbers = new LinkedHashMap<>();
        for (Field field : VCTKError.class.getFields()) {
            if (field.getType() == int.class && !field.getName().equals("OK")) {
                numbers.put(field.getName(), field.getInt(null));
            }
        }
        return numbers;
    }

    @ParameterizedTest
    @CsvSource({"INVALID_HANDLE,INTERNAL", "INVALID_ARGUMENT,ARGUMENT_INVALID", "BUFFER_TOO_SMALL,INTERNAL",
        "OUT_OF_MEMORY,OUT_OF_MEMORY", "TOO_LARGE,DATA_TOO_LARGE", "INTERNAL,INTERNAL",
        "URI_MALFORMED,STORE_URI_INVALID", "URI_SCHEME,STORE_URI_INVALID", "STORE_NOT_FOUND,STORE_NOT_FOUND",
        "STORE_UNREADABLE,STORE_UNREADABLE", "STORE_FORMAT,STORE_FORMAT", "STORE_NO_PRIVATE_KEY,STORE_WITHOUT_KEY",
        "PIN_REQUIRED,PIN_MISSING", "PIN_WRONG,PIN_WRONG", "PIN_SOURCE,PIN_FILE_UNUSABLE",
        "DEMO_STORE,DEMO_STORE_UNUSABLE", "TOKEN_MODULE,TOKEN_MODULE", "TOKEN_NOT_FOUND,TOKEN_NOT_FOUND",
        "TOKEN_REMOVED,TOKEN_REMOVED", "TOKEN_FAILED,TOKEN_FAILED", "PIN_LOCKED,PIN_LOCKED",
        "DIGEST_UNKNOWN,DIGEST_UNKNOWN", "DIGEST_WEAK,DIGEST_WEAK", "FILTER_TYPE,FILTER_UNKNOWN",
        "FILTER_VALUE,FILTER_VALUE", "NO_CERTIFICATE,NO_CERTIFICATE", "SEVERAL_CERTIFICATES,SEVERAL_CERTIFICATES",
        "DATA_EMPTY,DATA_EMPTY", "DATA_BASE64,INTERNAL", "SIGN_FAILED,SIGNING_FAILED", "NO_SIGNATURE,INTERNAL",
        "TIMESTAMP,TIMESTAMP"})
    void aNumberHasAReason(String number, Reason reason) throws Exception {
        assertEquals(reason, new SigningException(numbers().get(number), "text").reason());
        assertEquals(reason, SigningException.of(numbers().get(number), "detail").reason());
    }

    @Test
    void noNumberIsWithoutAReason() throws Exception {
        Set<Reason> reached = EnumSet.of(Reason.OTHER, SigningException.notSupported("").reason(),
            SigningException.notEncodable("").reason());
        for (Map.Entry<String, Integer> number : numbers().entrySet()) {
            Reason reason = new SigningException(number.getValue(), "text").reason();
            assertTrue(reason != Reason.OTHER, number.getKey());
            reached.add(reason);
        }
        assertEquals(EnumSet.allOf(Reason.class), reached, "every reason is the reason of something");
    }

    @ParameterizedTest
    @ValueSource(ints = {-1, 1, 999, 1000, 1007, 1100, 1116, 1307, Integer.MAX_VALUE, Integer.MIN_VALUE})
    void anUnknownNumberHasTheReasonOther(int number) {
        SigningException e = new SigningException(number, "text");
        assertEquals(Reason.OTHER, e.reason());
        assertEquals(number, e.number());
    }

    @ParameterizedTest
    @ValueSource(strings = {"a\0b", "a\ud83d"})
    void aTextWithoutAnEncodingHasAReasonOfItsOwn(String text) throws Exception {
        try (SigningClient client = SigningClient.store("demo:").open()) {
            for (String setting : List.of("data", "filter")) {
                SigningException e = assertThrows(SigningException.class, () -> {
                    if (setting.equals("data")) {
                        client.signRaw(text);
                    } else {
                        SigningClient.store("demo:").subjectContains(text).open().close();
                    }
                });
                assertEquals(Reason.TEXT_NOT_ENCODABLE, e.reason(), setting);
                assertEquals(VCTKError.INVALID_ARGUMENT, e.number(), setting);
            }
        }
    }
}
