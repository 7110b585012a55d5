package vex.jni;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.charset.StandardCharsets;
import java.security.cert.X509Certificate;
import java.util.stream.Stream;
import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/** Which texts are signed under a UTF-8 locale, and as which bytes. */
@Tag("natives")
class TextsTest {
    private static final int MEBI = 1 << 20;

    private static Client client;
    private static X509Certificate certificate;

    @BeforeAll
    static void open() throws Exception {
        assertEquals("UTF-8", System.getProperty("native.encoding"));
        client = Client.openDemo(Client.EC);
        certificate = Signatures.signerOf(client);
    }

    @AfterAll
    static void close() {
        client.close();
    }

    /** A text with a name for reports. */
    private record Text(String name, String value) {
        @Override
        public String toString() {
            return name;
        }
    }

    static Stream<Text> signedTexts() {
        return Stream.of(
            new Text("one character", "a"),
            new Text("a blank", " "),
            new Text("ASCII", "The quick brown fox jumps over the lazy dog."),
            new Text("every ASCII character except U+0000", ascii()),
            new Text("line ends of every kind", "\r\n\n\r\r\n\n\r"),
            new Text("like a format", "%s %n %d %%"),
            new Text("two-byte characters", "Grüße, Ελληνικά, Кириллица"),
            new Text("Chinese", "客户端签名工具"),
            new Text("combining characters, not composed", "e\u0301 A\u030a"),
            new Text("the edges of the basic plane", "\u0001\u007f\u0080\u07ff\u0800\ud7ff\ue000\ufffd\uffff"),
            new Text("a byte order mark first", "\ufefftext"),
            new Text("outside the basic plane", "😀🏳️‍🌈 𠀀 𝄞"),
            new Text("the edges of the other planes",
                new StringBuilder().appendCodePoint(0x10000).appendCodePoint(0x10ffff).toString()),
            new Text("1 MiB of ASCII", "x".repeat(MEBI)),
            new Text("1 MiB characters of mixed lengths", "a é漢😀\r\n".repeat(MEBI / 8)));
    }

    static Stream<Text> refusedTexts() {
        return Stream.of(
            new Text("U+0000 alone", "\0"),
            new Text("U+0000 first", "\0text"),
            new Text("U+0000 in the middle", "te\0xt"),
            new Text("U+0000 last", "text\0"),
            new Text("high surrogate alone", "\ud83d"),
            new Text("high surrogate last", "text\ud83d"),
            new Text("high surrogate in the middle", "te\ud83dxt"),
            new Text("low surrogate first", "\ude00text"),
            new Text("surrogates the wrong way round", "\ude00\ud83d"),
            new Text("high surrogate before a pair", "\ud83d😀"));
    }

    @ParameterizedTest
    @MethodSource("signedTexts")
    void signsATextAsItsUtf8Bytes(Text text) throws Exception {
        byte[] bytes = text.value().getBytes(StandardCharsets.UTF_8);
        String p1 = client.require(client.p1SignString(text.value()));
        assertTrue(Signatures.isP1Good(p1, bytes, certificate, "SHA256"));
        String p7 = client.require(client.p7SignString(text.value(), false, true));
        Signatures.assertP7(p7, bytes, false, true, certificate, Signatures.SHA256_OID);
    }

    @ParameterizedTest
    @MethodSource("refusedTexts")
    void refusesATextWithoutEncodingWithoutAskingTheToolkit(Text text) {
        assertEquals(1, Client.NATIVES.SetDigestAlg(client.handle(), "MD5"));
        assertEquals(0, Client.NATIVES.Initialize(null, "gopher:"));

        assertNull(client.p1SignString(text.value()));
        assertNull(client.p7SignString(text.value(), false, true));
        assertNull(client.p1Sign(text.value()));
        assertNull(client.p7Sign(text.value(), false, true));
        assertEquals(1, Client.NATIVES.SetDigestAlg(client.handle(), "SHA256" + text.value()));
        assertEquals(1,
            Client.NATIVES.AddFilter(client.handle(), TAVClientJNI.FILTER_SUBJECT, "CN" + text.value()));
        assertEquals(0, Client.NATIVES.Initialize(null, "demo:" + text.value()));

        assertEquals(VCTKError.DIGEST_WEAK, client.lastError(), "a call of the toolkit would have replaced it");
        assertEquals(VCTKError.URI_SCHEME, Client.NATIVES.GetLastError(0));
    }

    @Test
    void keepsTheObjectUnchangedByRefusedTexts() throws Exception {
        String before = client.certificateList();
        for (Text text : refusedTexts().toList()) {
            client.p1SignString(text.value());
            Client.NATIVES.AddFilter(client.handle(), TAVClientJNI.FILTER_SUBJECT, text.value());
        }
        assertEquals(before, client.certificateList());
        String p1 = client.require(client.p1SignString("still working"));
        assertTrue(Signatures.isP1Good(p1, "still working".getBytes(StandardCharsets.UTF_8), certificate, "SHA256"));
    }

    private static String ascii() {
        StringBuilder text = new StringBuilder();
        for (char c = 1; c < 0x80; ++c) {
            text.append(c);
        }
        return text.toString();
    }
}
