package vex.jni;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.Base64;
import java.util.LinkedHashMap;
import java.util.Map;
import java.util.function.Function;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;

/** What callers of the natives see of time stamps. */
@Tag("natives")
class TimeStampsTest {
    /** Nobody listens on that port. */
    private static final String DEAD = "http://127.0.0.1:1/";

    private static final String BASE64 = "dGV4dA==";

    @Test
    void aSignatureThatCannotBeStampedIsAnErrorOfItsOwn() {
        Map<String, Function<Client, String>> calls = new LinkedHashMap<>();
        calls.put("P1SignString", client -> client.p1SignString("text"));
        calls.put("P1Sign", client -> client.p1Sign(BASE64));
        calls.put("P7SignString", client -> client.p7SignString("text", true, true));
        calls.put("P7Sign", client -> client.p7Sign(BASE64, false, true));
        try (Client client = Client.open("demo:?tsa=" + DEAD.replace(":", "%3A"))) {
            calls.forEach((name, call) -> {
                assertNull(call.apply(client), name);
                assertEquals(1401, client.lastError(), name);
                String message = client.lastMessage();
                assertTrue(message.startsWith(VCTKError.message(VCTKError.TIMESTAMP) + ": "), message);
                assertEquals(name.startsWith("P7"), message.contains(DEAD), message);
            });
            client.setDigest("SHA256");
            assertEquals(VCTKError.OK, client.lastError());
        }
    }

    @Test
    void theStoreForStampsMakesARequest() {
        String signature;
        try (Client client = Client.openDemo(Client.EC)) {
            signature = client.require(client.p7SignString("text", true, true));
        }
        try (Client client = Client.open("stamp:")) {
            byte[] request = Base64.getDecoder().decode(client.require(client.p7Sign(signature, true, false)));
            assertEquals(0x30, request[0], "a DER sequence");
            assertEquals(request.length, 2 + request[1], "of fewer than 128 bytes, and nothing behind it");
            assertNull(client.p1Sign(BASE64));
            assertEquals(VCTKError.NO_CERTIFICATE, client.lastError());
            assertEquals("", client.certificateList());
        }
    }
}
