package vex.client;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.charset.StandardCharsets;
import java.security.cert.X509Certificate;
import java.util.Base64;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import vex.jni.Signatures;
import vex.jni.VCTKError;

/** A client under LC_ALL=C, which encodes ASCII only. */
@Tag("ascii-locale")
class AsciiLocaleClientTest {
    @Test
    void refusesWhatTheLocaleCannotEncodeAndSaysWhatToDo() throws Exception {
        try (SigningClient client = SigningClient.store("demo:").keyAlgorithm(KeyAlgorithm.EC).open()) {
            SigningException e = assertThrows(SigningException.class, () -> client.signRaw("Grüße"));
            assertEquals(SigningException.Reason.TEXT_NOT_ENCODABLE, e.reason());
            assertEquals(VCTKError.INVALID_ARGUMENT, e.number());
            assertTrue(e.getMessage().contains("LC_ALL=C.UTF-8"), e.getMessage());
            assertTrue(e.getMessage().contains("getBytes"), e.getMessage());
        }
        SigningException e = assertThrows(SigningException.class,
            () -> SigningClient.store("demo:").subjectContains("漢").open());
        assertTrue(e.getMessage().contains("the filter subject contains"), e.getMessage());
        assertTrue(e.getMessage().endsWith("such as LC_ALL=C.UTF-8"), e.getMessage());
    }

    @Test
    void signsBytesAndAsciiText() throws Exception {
        byte[] bytes = "Grüße 漢字".getBytes(StandardCharsets.UTF_8);
        try (SigningClient client = SigningClient.store("demo:").keyAlgorithm(KeyAlgorithm.EC).open()) {
            X509Certificate certificate =
                Signatures.certificateIn(client.signCmsAttached("plain"));
            String signature = Base64.getEncoder().encodeToString(client.signRaw(bytes));
            assertTrue(Signatures.isP1Good(signature, bytes, certificate, "SHA256"));
        }
    }
}
