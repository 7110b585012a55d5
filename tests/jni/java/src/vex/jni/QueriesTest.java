package vex.jni;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;

import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;

@Tag("natives")
class QueriesTest {
    private static final char[] VERSION = {'1', 0, '.', 0, '0', 0, '.'};

    @Test
    void returnsTheSameSevenUnitsAsVersionForAnyHandle() {
        try (Client client = Client.openDemo()) {
            for (long handle : new long[] {0, client.handle(), -1, 123456789}) {
                assertArrayEquals(VERSION, Client.NATIVES.GetSignVersion(handle).toCharArray());
            }
        }
    }

    @Test
    void neverReturnsTheCertificate() {
        try (Client client = Client.openDemo(Client.RSA)) {
            assertNull(Client.NATIVES.GetSignCert(client.handle()));
            client.require(client.p1SignString("text"));
            assertNull(Client.NATIVES.GetSignCert(client.handle()));
            assertEquals(VCTKError.OK, client.lastError());
        }
    }

    @Test
    void returnsTheErrorOfTheLastCall() {
        try (Client client = Client.openDemo()) {
            assertEquals(VCTKError.OK, client.lastError());
            assertEquals("No error", client.lastMessage());

            assertEquals(1, Client.NATIVES.SetDigestAlg(client.handle(), "nonsense"));
            assertEquals(VCTKError.DIGEST_UNKNOWN, client.lastError());
            assertEquals(VCTKError.message(VCTKError.DIGEST_UNKNOWN),
                client.lastMessage().replaceFirst(": .*", ""));
            assertEquals(VCTKError.DIGEST_UNKNOWN, client.lastError(), "asking does not clear it");

            client.setDigest("SHA256");
            assertEquals(VCTKError.OK, client.lastError());
            assertEquals("No error", client.lastMessage());
        }
    }
}
