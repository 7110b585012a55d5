package vex.jni;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.concurrent.CompletableFuture;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/** Opening stores of every kind, and what happens when that fails. */
@Tag("natives")
class InitializeTest {
    @TempDir
    private static Path directory;

    private static TestStore.Identity identity;

    @BeforeAll
    static void makeStores() throws Exception {
        identity = TestStore.identity("secp256r1", "CN=Signer", 1, 30, 0);
        TestStore.writePkcs12(directory.resolve("keys.p12"), List.of(identity));

        OpenSslCommand openSsl = new OpenSslCommand(directory);
        openSsl.run("pkcs12", "-in", "keys.p12", "-passin", "pass:" + TestStore.PIN, "-nodes", "-out", "keys.pem");
        openSsl.run("pkcs12", "-in", "keys.p12", "-passin", "pass:" + TestStore.PIN, "-nokeys", "-out", "certs.pem");
        openSsl.run("pkcs12", "-in", "keys.p12", "-passin", "pass:" + TestStore.PIN, "-passout",
            "pass:" + TestStore.PIN, "-out", "locked.pem");

        write("pin", TestStore.PIN + "\n");
        write("wrong-pin", "battery staple\n");
        write("empty", "");
        write("garbage", "not a store\n");
    }

    private static void write(String name, String content) throws Exception {
        Files.write(directory.resolve(name), content.getBytes(StandardCharsets.US_ASCII));
    }

    /** DIR stands for the directory. */
    private static String uri(String pattern) {
        return pattern.replace("DIR", directory.toString());
    }

    @ParameterizedTest
    @CsvSource({
        "file:DIR/keys.p12?pin-value=correct%20horse",
        "file:DIR/keys.p12?pin-source=file:DIR/pin",
        "file://DIR/keys.p12?pin-source=DIR/pin",
        "file:DIR/keys.pem",
        "file:DIR/locked.pem?pin-value=correct%20horse"})
    void opensAStore(String pattern) throws Exception {
        try (Client client = Client.open(uri(pattern))) {
            assertEquals(identity.certificate(), Signatures.signerOf(client));
            assertEquals(VCTKError.OK, Client.NATIVES.GetLastError(0));
        }
    }

    @Test
    void signsWithEveryKeyOfAPkcs12File() throws Exception {
        List<TestStore.Identity> identities = List.of(
            TestStore.identity("secp256r1", "CN=First", 1, 30, 0),
            TestStore.identity("RSA", "CN=Second", 2, 30, 0),
            TestStore.identity("secp384r1", "CN=Third", 3, 30, 0));
        TestStore.writePkcs12(directory.resolve("three.p12"), identities);
        try (Client client = Client.open(uri("file:DIR/three.p12?pin-value=correct%20horse"))) {
            for (TestStore.Identity identity : identities) {
                assertEquals(0, Client.NATIVES.ClearFilter(client.handle()));
                client.addFilter(TAVClientJNI.FILTER_SERIAL, identity.certificate().getSerialNumber().toString(16));
                assertEquals(identity.certificate(), Signatures.signerOf(client));
            }
        }
    }

    @ParameterizedTest
    @CsvSource({
        "PIN_WRONG, file:DIR/keys.p12?pin-value=1234",
        "PIN_WRONG, file:DIR/keys.p12?pin-source=file:DIR/wrong-pin",
        "PIN_WRONG, file:DIR/locked.pem?pin-value=1234",
        "PIN_REQUIRED, file:DIR/keys.p12",
        "PIN_REQUIRED, file:DIR/locked.pem",
        "PIN_SOURCE, file:DIR/keys.p12?pin-source=file:DIR/missing",
        "PIN_SOURCE, file:DIR/keys.p12?pin-source=file:DIR/empty",
        "STORE_NOT_FOUND, file:DIR/missing.p12?pin-value=1234",
        "STORE_UNREADABLE, file:DIR",
        "STORE_FORMAT, file:DIR/garbage",
        "STORE_FORMAT, file:DIR/empty",
        "STORE_NO_PRIVATE_KEY, file:DIR/certs.pem",
        "TOKEN_NOT_FOUND, pkcs11:token=any",
        "URI_MALFORMED, keys.p12",
        "URI_MALFORMED, file:keys.p12",
        "URI_MALFORMED, demo:more",
        "URI_MALFORMED, file:DIR/keys.p12?pin=1234",
        "URI_MALFORMED, 漢字"})
    void reportsTheNumberOfAFailure(String error, String pattern) throws Exception {
        assertEquals(0, Client.NATIVES.Initialize(null, uri(pattern)));
        assertEquals(VCTKError.class.getField(error).getInt(null), Client.NATIVES.GetLastError(0));
    }

    @Test
    void keepsTheNumberForTheCallingThread() {
        assertEquals(0, Client.NATIVES.Initialize(null, "gopher:"));
        assertEquals(0, CompletableFuture.supplyAsync(() -> {
            assertEquals(0, Client.NATIVES.Initialize(null, uri("file:DIR/missing")));
            assertEquals(VCTKError.STORE_NOT_FOUND, Client.NATIVES.GetLastError(0));
            Client.openDemo().close();
            return Client.NATIVES.GetLastError(0);
        }).join());
        assertEquals(VCTKError.URI_SCHEME, Client.NATIVES.GetLastError(0));
    }

    @Test
    void reusesTheDemoStore() {
        try (Client first = Client.openDemo(); Client second = Client.openDemo()) {
            assertNotEquals("", first.certificateList());
            assertEquals(first.certificateList(), second.certificateList());
        }
        Path made = Path.of(System.getenv("XDG_DATA_HOME"), "vex-client-toolkit");
        assertTrue(Files.isDirectory(made), () -> made + " is the place of the demo store");
    }
}
