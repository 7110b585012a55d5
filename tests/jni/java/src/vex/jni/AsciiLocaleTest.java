package vex.jni;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.charset.StandardCharsets;
import java.security.cert.X509Certificate;
import java.util.Base64;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/** A process locale that encodes only ASCII: LC_ALL=C. */
@Tag("ascii-locale")
class AsciiLocaleTest {
    @BeforeAll
    static void localeIsC() {
        assertEquals("C", System.getenv("LC_ALL"));
        assertEquals("ANSI_X3.4-1968", System.getProperty("native.encoding"));
    }

    @Test
    void signsAsciiText() throws Exception {
        try (Client client = Client.openDemo(Client.EC)) {
            X509Certificate certificate = Signatures.signerOf(client);
            String p1 = client.require(client.p1SignString("plain text\r\n"));
            byte[] bytes = "plain text\r\n".getBytes(StandardCharsets.US_ASCII);
            assertTrue(Signatures.isP1Good(p1, bytes, certificate, "SHA256"));
        }
    }

    @ParameterizedTest
    @ValueSource(strings = {"é", "Grüße", "漢字", "text 😀"})
    void refusesOtherTextWithAnErrorThatNamesTheLocale(String text) {
        try (Client client = Client.openDemo(Client.EC)) {
            for (int kind = 0; kind < 2; ++kind) {
                assertNull(kind == 0 ? client.p1SignString(text) : client.p7SignString(text, false, true));
                assertEquals(VCTKError.DATA_EMPTY, client.lastError());
                assertTrue(client.lastMessage().contains("locale"), client.lastMessage());
            }
        }
    }

    @Test
    void refusesAFilterValueThatItCannotEncode() {
        try (Client client = Client.openDemo()) {
            String before = client.certificateList();
            assertEquals(1, Client.NATIVES.AddFilter(client.handle(), TAVClientJNI.FILTER_SUBJECT, "漢"));
            assertEquals(VCTKError.FILTER_VALUE, client.lastError());
            assertEquals(before, client.certificateList());
        }
    }

    @Test
    void signsAnyBytesThroughBase64() throws Exception {
        try (Client client = Client.openDemo(Client.EC)) {
            X509Certificate certificate = Signatures.signerOf(client);
            byte[] bytes = "漢字 😀".getBytes(StandardCharsets.UTF_8);
            String p1 = client.require(client.p1Sign(Base64.getEncoder().encodeToString(bytes)));
            assertTrue(Signatures.isP1Good(p1, bytes, certificate, "SHA256"));
        }
    }
}
