package vex.client;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.stream.Stream;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;
import vex.jni.Run;
import vex.jni.TestJar;
import vex.jni.TestStore;

/** A program in a module, which needs the jar's module, runs from the module path and in an image made by jlink. */
@Tag("platform")
class ModuleTest {
    private static final String LIBRARY = "-Dvex.jni.library=" + System.getProperty("vex.jni.library");
    private static final Path PROGRAM = Path.of(System.getProperty("vex.test.module-program"));
    private static final String SIGNED = "CMS of some bytes\nSHA256withECDSA verified\nSHA256withRSA verified\n";

    @TempDir
    private Path directory;

    private Path classes;

    @BeforeEach
    void compileTheProgram() throws Exception {
        classes = directory.resolve("signing");
        List<String> command = new ArrayList<>(List.of(Run.jdkProgram("javac"), "-p",
            System.getProperty("vex.test.jar"), "-d", classes.toString()));
        try (Stream<Path> sources = Files.walk(PROGRAM)) {
            sources.filter(path -> path.toString().endsWith(".java")).forEach(path -> command.add(path.toString()));
        }
        run(command.toArray(new String[0]));
    }

    private String run(String... command) throws Exception {
        ProcessBuilder builder = new ProcessBuilder(command).directory(directory.toFile());
        builder.environment().put("JAVA_TOOL_OPTIONS", "-XX:TieredStopAtLevel=1 -XX:+UseSerialGC");
        return Run.of(builder).succeeded().output();
    }

    /** The program prints its signatures in the order of the aliases. */
    private static String sorted(String output) {
        return String.join("\n", output.lines().sorted().toList()) + "\n";
    }

    private static String jar(String property) {
        return System.getProperty(property);
    }

    /** The thin jar gets its library from the property; for the bundled one the property is empty. */
    private static String library(String property) {
        return property.equals("vex.test.bundled") ? "-Dvex.jni.library=" : LIBRARY;
    }

    @ParameterizedTest
    @ValueSource(strings = {"vex.test.jar", "vex.test.bundled"})
    void runsFromTheModulePath(String property) throws Exception {
        String output = run(Run.jdkProgram("java"), "--enable-native-access=vex.client", library(property), "-p",
            classes + ":" + jar(property), "-m", "signing/signing.Main");
        assertEquals(SIGNED + "module vex.client@" + version() + "\n", sorted(output));
    }

    @ParameterizedTest
    @ValueSource(strings = {"vex.test.jar", "vex.test.bundled"})
    void runsFromTheClassPath(String property) throws Exception {
        String output = run(Run.jdkProgram("java"), "--enable-native-access=ALL-UNNAMED", library(property), "-cp",
            classes + ":" + jar(property), "signing.Main");
        assertEquals(sorted(SIGNED + "class path\n"), sorted(output));
    }

    /** Before Java 22, EC keys need the module jdk.crypto.ec. Nothing requires it, so the image has to name it. */
    @ParameterizedTest
    @ValueSource(strings = {"vex.test.jar", "vex.test.bundled"})
    void runsInAnImage(String property) throws Exception {
        Path image = directory.resolve("image");
        run(Run.jdkProgram("jlink"), "-p", classes + ":" + jar(property), "--add-modules", "signing,jdk.crypto.ec",
            "--output", image.toString());
        String java = image.resolve("bin/java").toString();
        assertTrue(run(java, "--list-modules").contains("vex.client@" + version() + "\n"));
        String output = run(java, "--enable-native-access=vex.client", library(property), "-m", "signing/signing.Main");
        assertEquals(SIGNED + "module vex.client@" + version() + "\n", sorted(output));
    }

    /** keytool and jarsigner find the provider by its name, as a service, and keytool by its class. */
    @ParameterizedTest
    @ValueSource(strings = {"--class-path", "--module-path"})
    void theJdksToolsFindTheProvider(String path) throws Exception {
        Path store = directory.resolve("keys.p12");
        TestStore.Identity signer = TestStore.identity("secp256r1", "CN=Signer", 1, 30, 0);
        TestStore.writePkcs12(store, List.of(signer));
        List<String> options = List.of("-J" + path + "=" + jar("vex.test.bundled"),
            "-J--enable-native-access=" + (path.equals("--class-path") ? "ALL-UNNAMED" : "vex.client"), "-keystore",
            "NONE", "-storetype", "VexClient", "-storepass", TestStore.PIN, "-addprovider", "VexClient",
            "-providerArg", "file:" + store);
        String output = tool("keytool", options, "-list");
        assertTrue(output.contains("Your keystore contains 1 entry"), output);
        List<String> byClass = new ArrayList<>(options);
        byClass.set(byClass.indexOf("-addprovider"), "-providerClass");
        byClass.set(byClass.indexOf("-providerClass") + 1, SigningProvider.class.getName());
        assertEquals(output, tool("keytool", byClass, "-list"));

        Path signed = directory.resolve("app.jar");
        TestJar.write(signed);
        tool("jarsigner", options, signed.toString(), Certificates.fingerprint(signer.certificate()));
        TestJar.assertSignedBy(signed, signer.certificate());
    }

    private String tool(String name, List<String> options, String... arguments) throws Exception {
        List<String> command = new ArrayList<>(List.of(Run.jdkProgram(name)));
        command.addAll(options);
        command.addAll(List.of(arguments));
        return run(command.toArray(new String[0]));
    }

    @Test
    void anImageNeedsNoOtherModule() throws Exception {
        String output = run(Run.jdkProgram("java"), "-p", classes + ":" + jar("vex.test.jar"), "--limit-modules",
            "signing", "--list-modules");
        assertEquals(List.of("java.base", "java.logging", "signing", "vex.client"),
            output.lines().map(line -> line.replaceFirst("[@ ].*", "")).sorted().toList());
    }

    private static String version() {
        return SigningClient.class.getPackage().getImplementationVersion();
    }
}
