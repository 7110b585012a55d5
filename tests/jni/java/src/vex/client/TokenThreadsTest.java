package vex.client;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import vex.jni.Run;
import vex.jni.TestStore;
import vex.jni.VCTKError;

/** Many threads and a token. A module between the toolkit and the token writes down the calls. */
@Tag("tools")
class TokenThreadsTest {
    private static final int DOCUMENTS = 10_000;
    private static final int THREADS = 16;

    @TempDir
    private Path directory;

    private Path calls() {
        return directory.resolve("calls");
    }

    private Run run(String... command) throws Exception {
        ProcessBuilder builder = new ProcessBuilder(command);
        builder.environment().put("SOFTHSM2_CONF", directory.resolve("softhsm2.conf").toString());
        builder.environment().put("VEX_TEST_PKCS11_MODULE", System.getProperty("vex.test.softhsm"));
        builder.environment().put("VEX_TEST_PKCS11_CALLS", calls().toString());
        return Run.of(builder).succeeded();
    }

    @BeforeEach
    void makeToken() throws Exception {
        Files.createDirectory(directory.resolve("tokens"));
        Files.writeString(directory.resolve("softhsm2.conf"),
            "directories.tokendir = " + directory.resolve("tokens") + "\n");
        run("softhsm2-util", "--init-token", "--free", "--label", "Test", "--so-pin", "12345678", "--pin",
            TestStore.PIN);
        Path file = directory.resolve("keys.p12");
        TestStore.writePkcs12(file, List.of(TestStore.identity("secp256r1", "CN=Signer", 1, 30, 0)));
        Path configuration = Files.writeString(directory.resolve("token.cfg"), "name = Test\nlibrary = "
            + System.getProperty("vex.test.softhsm") + "\nslotListIndex = 0\n"
            + "attributes(import,CKO_PRIVATE_KEY,*) = {\nCKA_SIGN = true\n}\n");
        run(Run.jdkProgram("keytool"), "-importkeystore", "-noprompt", "-srckeystore", file.toString(),
            "-srcstoretype", "PKCS12", "-srcstorepass", TestStore.PIN, "-srcalias", "key0", "-destkeystore", "NONE",
            "-deststoretype", "PKCS11", "-deststorepass", TestStore.PIN, "-addprovider", "SunPKCS11", "-providerArg",
            configuration.toString());
        // The toolkit does not load a module that others may write.
        run("install", "-m", "0755", System.getProperty("vex.test.pkcs11-shim"), module().toString());
    }

    private Path module() {
        return directory.resolve("libvex_test_pkcs11.so");
    }

    private Run threads(String... arguments) throws Exception {
        List<String> command = new ArrayList<>(List.of(Run.jdkProgram("java"), "--enable-native-access=ALL-UNNAMED",
            "-Dvex.jni.library=" + System.getProperty("vex.jni.library"), "-cp", System.getProperty("java.class.path"),
            TokenThreads.class.getName(), "pkcs11:token=Test?module-path=" + module()));
        command.addAll(List.of(arguments));
        return run(command.toArray(new String[0]));
    }

    private int count(String call) throws Exception {
        return Collections.frequency(Files.readAllLines(calls()), call);
    }

    @Test
    void tenThousandDocumentsNeedOneLogin() throws Exception {
        threads(TestStore.PIN, Integer.toString(DOCUMENTS));
        assertEquals(1, count("C_Login"));
        assertEquals(DOCUMENTS, count("C_Sign"));
        assertTrue(count("C_OpenSession") < 100, "sessions are used again");
    }

    @Test
    void aWrongPinIsTriedOnce() throws Exception {
        Run run = threads("wrong");
        assertEquals(Collections.nCopies(THREADS, Integer.toString(VCTKError.PIN_WRONG)),
            run.output().lines().toList());
        assertEquals(1, count("C_Login"));
    }
}
