package vex.client;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.ArrayList;
import java.util.List;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import vex.jni.Run;
import vex.jni.TestStore;

/** Logins of the provider as a token sees them. A module stands between the toolkit and the token and writes calls. */
@Tag("tools")
class TokenLoginTest {
    private static final String SOFTHSM = System.getProperty("vex.test.softhsm");

    @TempDir
    private Path directory;

    private Path module;
    private Path calls;

    @BeforeEach
    void createToken() throws Exception {
        Files.createDirectory(directory.resolve("tokens"));
        Files.writeString(directory.resolve("softhsm2.conf"),
            "directories.tokendir = " + directory.resolve("tokens") + "\n");
        module = Files.copy(Path.of(System.getProperty("vex.test.pkcs11-shim")), directory.resolve("module.so"));
        Files.setPosixFilePermissions(module, PosixFilePermissions.fromString("rwxr-xr-x"));
        calls = directory.resolve("calls");
        run("softhsm2-util", "--init-token", "--free", "--label", "Test", "--so-pin", "12345678", "--pin",
            TestStore.PIN);
    }

    private String run(String... command) throws Exception {
        ProcessBuilder builder = new ProcessBuilder(command).directory(directory.toFile());
        builder.environment().put("SOFTHSM2_CONF", directory.resolve("softhsm2.conf").toString());
        builder.environment().put("VEX_TEST_PKCS11_MODULE", SOFTHSM);
        builder.environment().put("VEX_TEST_PKCS11_CALLS", calls.toString());
        return Run.of(builder).succeeded().output();
    }

    /** Writes a key and its certificate, with the label of the certificate's object. */
    private void importKey(String id, String label) throws Exception {
        run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "30", "-subj", "/CN=x", "-keyout",
            "key.pem", "-outform", "DER", "-out", "certificate");
        run("softhsm2-util", "--import", "key.pem", "--token", "Test", "--label", "key " + id, "--id", id, "--pin",
            TestStore.PIN);
        run("pkcs11-tool", "--module", SOFTHSM, "--token-label", "Test", "--login", "--pin", TestStore.PIN,
            "--write-object", "certificate", "--type", "cert", "--id", id, "--label", label);
    }

    private List<String> program(String alias) throws Exception {
        List<String> command = new ArrayList<>(List.of(Run.jdkProgram("java"), "--enable-native-access=ALL-UNNAMED",
            "-XX:TieredStopAtLevel=1", "-Dvex.jni.library=" + System.getProperty("vex.jni.library"), "-cp",
            System.getProperty("java.class.path"), TokenLogin.class.getName(),
            "pkcs11:token=Test?module-path=" + module, alias, TestStore.PIN, calls.toString()));
        return run(command.toArray(new String[0])).lines().toList();
    }

    @Test
    void aProgramLogsOutAndInAgain() throws Exception {
        importKey("01", "Meier, Büro 3");
        String asked = "asked: PIN for pkcs11:token=Test: ";
        String refused = "The provider VexClient was logged out; load the KeyStore again";
        assertEquals(List.of(
            asked,
            "aliases: [Meier, Büro 3]",
            "first load: signed; logins 1, sessions",
            "second load: signed; logins 1, sessions",
            "second closed: signed; logins 1, sessions",
            "logout: " + refused + "; logins 1, no session",
            "wrong PIN: PIN_WRONG; logins 2, no session",
            asked,
            "login: signed; logins 3, sessions",
            "the key from before: " + refused + "; logins 3, sessions",
            asked,
            "load after logout: signed; logins 4, sessions",
            "logout: ; logins 4, no session",
            "PIN of the program: signed; logins 5, sessions",
            "closed: ; logins 5, no session"), program("meier, büro 3"));
    }
}
