package vex.client;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.io.PrintWriter;
import java.io.StringWriter;
import java.net.URLEncoder;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.LocalDate;
import java.time.ZoneOffset;
import java.util.List;
import java.util.Map;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import vex.client.SigningException.Reason;
import vex.jni.Run;
import vex.jni.TestStore;

/** A failure names the thing that it is about, and never the PIN. */
class FailureMessagesTest {
    private static final String PIN = "Geheim-4711 ü";
    private static final String ENCODED_PIN = "Geheim-4711%20%C3%BC";

    @TempDir
    private Path directory;

    /** What is tried, and parts of the message. */
    private record Case(String name, Reason reason, Action action, String... parts) {}

    private interface Action {
        void run() throws Exception;
    }

    private static void requireNoPin(String name, String text) {
        for (String pin : List.of(PIN, ENCODED_PIN, "4711", "Geheim", "eheim", "%C3%BC",
                URLEncoder.encode(PIN, StandardCharsets.UTF_8))) {
            assertFalse(text.contains(pin), () -> name + ": the PIN is in " + text);
        }
        // StoreText escapes every byte of a PIN.
        assertFalse(text.contains("%34%37%31%31"), () -> name + ": the PIN is in " + text);
    }

    private static void check(Case c) {
        SigningException e = assertThrows(SigningException.class, c.action()::run, c.name());
        assertEquals(c.reason(), e.reason(), () -> c.name() + ": " + e.getMessage());
        for (String part : c.parts()) {
            assertTrue(e.getMessage().contains(part), () -> c.name() + ": no \"" + part + "\" in " + e.getMessage());
        }
        StringWriter trace = new StringWriter();
        e.printStackTrace(new PrintWriter(trace));
        requireNoPin(c.name(), trace.toString());
    }

    /** The ways to give a PIN. */
    private List<SigningClient.Builder> withPin(Path file) throws IOException, SigningException {
        Path pinFile = Files.writeString(directory.resolve("pin"), PIN);
        return List.of(SigningClient.file(file).pin(PIN.toCharArray()), SigningClient.file(file).pinFile(pinFile),
            SigningClient.store(StoreText.ofFile(file) + "?pin-value=" + ENCODED_PIN),
            SigningClient.store(StoreText.withPin(StoreText.ofFile(file), PIN.toCharArray())));
    }

    private static Action open(SigningClient.Builder builder) {
        return () -> builder.open().close();
    }

    private static Action sign(SigningClient.Builder builder) {
        return () -> {
            try (SigningClient client = builder.open()) {
                client.signRaw("I owe you 100 euros.");
            }
        };
    }

    @Test
    @Tag("client")
    void filesAreNamed() throws Exception {
        Path missing = directory.resolve("fehlt 漢.p12");
        Path text = Files.writeString(directory.resolve("text.p12"), "no store");
        Path locked = directory.resolve("locked.p12");
        TestStore.writePkcs12(locked, List.of(TestStore.identity("secp256r1", "CN=locked", 1, 30, 0)));
        for (SigningClient.Builder builder : withPin(missing)) {
            check(new Case("missing", Reason.STORE_NOT_FOUND, open(builder), missing.toString(), "No such file"));
        }
        for (SigningClient.Builder builder : withPin(directory)) {
            check(new Case("directory", Reason.STORE_UNREADABLE, open(builder), directory.toString()));
        }
        for (SigningClient.Builder builder : withPin(text)) {
            check(new Case("text", Reason.STORE_FORMAT, open(builder), text.toString(), "neither PKCS #12 nor PEM"));
        }
        for (SigningClient.Builder builder : withPin(locked)) {
            check(new Case("wrong PIN", Reason.PIN_WRONG, open(builder), locked.toString()));
        }
        check(new Case("no PIN", Reason.PIN_MISSING, open(SigningClient.file(locked)), locked.toString()));
        Path noPin = directory.resolve("no pin");
        check(new Case("PIN file", Reason.PIN_FILE_UNUSABLE, open(SigningClient.file(locked).pinFile(noPin)),
            noPin.toString(), "No such file"));
        Path chain = directory.resolve("chain.pem");
        check(new Case("chain", Reason.STORE_NOT_FOUND,
            open(SigningClient.store("demo:").chainFile(chain)), "chain-source", chain.toString()));
    }

    @Test
    @Tag("client")
    void urisAreNotRepeated() {
        for (String uri : List.of("file:/x?pin-value=" + ENCODED_PIN + "&bogus=1", "gopher:" + ENCODED_PIN,
                "file:/x?pin-value=" + ENCODED_PIN + "&pin-value=" + ENCODED_PIN, "file:%zz" + ENCODED_PIN, "file:")) {
            check(new Case(uri, Reason.STORE_URI_INVALID, open(SigningClient.store(uri)), "initialisation text"));
        }
        check(new Case("empty", Reason.STORE_URI_INVALID, open(SigningClient.store("")), "store URI is empty"));
    }

    @Test
    @Tag("client")
    void aPinWithoutAPlaceIsNamed() throws Exception {
        Path pinFile = Files.writeString(directory.resolve("pin"), PIN);
        for (String uri : List.of("file:/x?pin-value=" + ENCODED_PIN, "file:/x?list=all&pin-source=file:/y")) {
            for (SigningClient.Builder builder : List.of(SigningClient.store(uri).pin(PIN.toCharArray()),
                    SigningClient.store(uri).pinFile(pinFile))) {
                check(new Case(uri, Reason.STORE_URI_INVALID, open(builder), "A PIN is given", "leave one of them out"));
            }
        }
        check(new Case("demo store", Reason.STORE_URI_INVALID,
            open(SigningClient.store("demo:").pin(PIN.toCharArray())), "The demo store has no PIN"));
    }

    @Test
    @Tag("client")
    void modulesAreNamed() {
        String uri = "pkcs11:token=x?pin-value=" + ENCODED_PIN + "&module-path=";
        for (SigningClient.Builder builder : List.of(SigningClient.store(uri + "/nowhere/module.so"),
                SigningClient.store("pkcs11:?module-path=/nowhere/module.so").pin(PIN.toCharArray()))) {
            check(new Case("missing", Reason.TOKEN_MODULE, open(builder), "/nowhere/module.so",
                "there is no such file"));
        }
        check(new Case("no library", Reason.TOKEN_MODULE, open(SigningClient.store(uri + "/etc/services")),
            "/etc/services", "invalid ELF header"));
    }

    @Test
    @Tag("client")
    void certificatesThatCannotSignAreCounted() throws Exception {
        String yesterday = LocalDate.now(ZoneOffset.UTC).minusDays(1).toString();
        TestStore.Identity expired = TestStore.identity("secp256r1", "CN=expired", 1, -1, 0);
        TestStore.Identity good = TestStore.identity("secp256r1", "CN=good", 2, 30, 0);
        Path alone = directory.resolve("alone.pem");
        TestStore.writePem(alone, List.of(expired));
        check(new Case("expired", Reason.NO_CERTIFICATE, sign(SigningClient.file(alone)), "1 expired on " + yesterday));
        Path both = directory.resolve("both.pem");
        TestStore.writePem(both, List.of(expired, good));
        check(new Case("filtered", Reason.NO_CERTIFICATE, sign(SigningClient.file(both).subjectContains("nobody")),
            "2 not passing the filters"));
        Path without = Files.writeString(directory.resolve("without.pem"),
            TestStore.pem("CERTIFICATE", good.certificate().getEncoded()));
        check(new Case("no key", Reason.STORE_WITHOUT_KEY, open(SigningClient.file(without)), without.toString(),
            "1 without a private key"));
    }

    @Test
    @Tag("client")
    void settingsAreNamed() {
        for (Case c : List.of(
                new Case("digest", Reason.DIGEST_UNKNOWN, open(SigningClient.store("demo:").digest("x")), "\"x\""),
                new Case("weak", Reason.DIGEST_WEAK, open(SigningClient.store("demo:").digest("MD5")), "\"MD5\""),
                new Case("no digest", Reason.DIGEST_UNKNOWN, open(SigningClient.store("demo:").digest("")), "empty"),
                new Case("filter", Reason.FILTER_VALUE, open(SigningClient.store("demo:").policy("x")), "policy \"x\""),
                new Case("no filter", Reason.FILTER_VALUE, open(SigningClient.store("demo:").policy("")), "empty"))) {
            check(c);
        }
    }

    /** Only a text to sign may be signed as bytes instead. */
    @Test
    @Tag("client")
    void zeroInATextIsNamed() {
        Map<String, Action> settings = Map.of("The store URI", open(SigningClient.store("demo:\0")),
            "The digest algorithm", open(SigningClient.store("demo:").digest("SHA-256\0")),
            "The value of the filter policy", open(SigningClient.store("demo:").policy("1.2\0")));
        settings.forEach((what, action) -> {
            SigningException e = assertThrows(SigningException.class, action::run, what);
            assertTrue(e.getMessage().matches(what + " has U\\+0000 at index \\d+; remove it"), e.getMessage());
        });
        check(new Case("text", Reason.TEXT_NOT_ENCODABLE, () -> {
            try (SigningClient client = SigningClient.store("demo:").open()) {
                client.signRaw("a\0b");
            }
        }, "The text has U+0000 at index 1; remove it, or sign the bytes"));
    }

    // ---- In a process of its own, for the environment ----

    private String failure(String variable, Path value, String... arguments) throws Exception {
        ProcessBuilder builder = new ProcessBuilder(Run.jdkProgram("java"), "--enable-native-access=ALL-UNNAMED",
            "-Dvex.jni.library=" + System.getProperty("vex.jni.library"), "-cp", System.getProperty("java.class.path"),
            PrintFailure.class.getName());
        builder.command().addAll(List.of(arguments));
        builder.environment().put(variable, value.toString());
        return Run.of(builder).succeeded().output().trim();
    }

    @Test
    @Tag("client")
    void theDirectoryOfTheDemoStoreIsNamed() throws Exception {
        Path file = Files.writeString(directory.resolve("file"), "no directory");
        String message = failure("XDG_DATA_HOME", file, "demo:");
        assertTrue(message.startsWith("DEMO_STORE_UNUSABLE: "), message);
        assertTrue(message.contains(file + "/vex-client-toolkit"), message);
    }

    @Test
    @Tag("tools")
    void tokensAreNamed() throws Exception {
        Path settings = Files.writeString(directory.resolve("softhsm2.conf"),
            "directories.tokendir = " + Files.createDirectory(directory.resolve("tokens")) + "\n");
        ProcessBuilder token = new ProcessBuilder("softhsm2-util", "--init-token", "--free", "--label", "Test",
            "--so-pin", "12345678", "--pin", "1234");
        token.environment().put("SOFTHSM2_CONF", settings.toString());
        Run.of(token).succeeded();
        String module = "?module-path=" + System.getProperty("vex.test.softhsm");
        String none = failure("SOFTHSM2_CONF", settings, "pkcs11:token=other" + module, PIN);
        assertTrue(none.startsWith("TOKEN_NOT_FOUND: "), none);
        String missing = failure("SOFTHSM2_CONF", settings, "pkcs11:token=Test" + module);
        assertTrue(missing.startsWith("PIN_MISSING: "), missing);
        String wrong = failure("SOFTHSM2_CONF", settings, "pkcs11:token=Test" + module, PIN);
        assertTrue(wrong.startsWith("PIN_WRONG: "), wrong);
        for (String message : List.of(none, missing, wrong)) {
            requireNoPin("token", message);
        }
    }
}
