package vex.jni;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.InputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.Signature;
import java.security.cert.CertificateFactory;
import java.security.cert.X509Certificate;
import java.security.spec.MGF1ParameterSpec;
import java.security.spec.PSSParameterSpec;
import java.util.ArrayList;
import java.util.Base64;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.stream.Collectors;
import java.util.stream.Stream;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.ValueSource;

/** The demo program as its users start it, in a JVM of its own. */
@Tag("demo")
class DemoProgramTest {
    private static final String TEXT = "Grüße, 漢字 😀\r\nsecond line";
    private static final String LIBRARY = "-Dvex.jni.library=" + System.getProperty("vex.jni.library");
    private static final Set<String> FILES = Set.of("content.bin", "cert.pem", "p1.sig", "p7-detached.der",
        "p7-detached-cert.der", "p7-attached.der", "p7-attached-cert.der");

    @TempDir
    private Path directory;

    /** Starts the jar as users of any Java start it: without options for newer JVMs. */
    private Run demo(Map<String, String> environment, String library, String... arguments) throws Exception {
        List<String> command = new ArrayList<>(
            List.of(Run.jdkProgram("java"), library, "-jar", System.getProperty("vex.test.demo")));
        command.addAll(List.of(arguments));
        ProcessBuilder builder = new ProcessBuilder(command).directory(directory.toFile());
        builder.environment().putAll(environment);
        Run run = Run.of(builder);
        assertFalse(run.errors().contains("WARNING"), run::errors);
        return run;
    }

    private Run demo(String... arguments) throws Exception {
        return demo(Map.of(), LIBRARY, arguments);
    }

    /** Asserts that the demo signed the text, by verifying the files that it wrote. */
    private void assertSigned(Run run, String out, String text, String keyAlgorithm) throws Exception {
        assertEquals(0, run.status(), run::errors);
        assertEquals("", run.errors());
        byte[] content = text.getBytes(StandardCharsets.UTF_8);
        Path made = directory.resolve(out);
        try (Stream<Path> files = Files.list(made)) {
            assertEquals(FILES, files.map(file -> file.getFileName().toString()).collect(Collectors.toSet()));
        }
        for (String file : FILES) {
            assertTrue(run.output().contains(out + "/" + file), () -> file + " is not listed in " + run.output());
        }

        assertArrayEquals(content, Files.readAllBytes(made.resolve("content.bin")));
        X509Certificate certificate;
        try (InputStream stream = Files.newInputStream(made.resolve("cert.pem"))) {
            certificate = (X509Certificate) CertificateFactory.getInstance("X.509").generateCertificate(stream);
        }
        assertEquals(keyAlgorithm, certificate.getPublicKey().getAlgorithm());
        assertTrue(Signatures.isP1Good(base64(made.resolve("p1.sig")), content, certificate, "SHA256"));
        for (boolean detached : new boolean[] {true, false}) {
            for (boolean withCertificate : new boolean[] {true, false}) {
                String name = "p7-" + (detached ? "detached" : "attached") + (withCertificate ? "-cert" : "") + ".der";
                Signatures.assertP7(base64(made.resolve(name)), content, detached, withCertificate, certificate,
                    Signatures.SHA256_OID);
            }
        }
        assertTrue(run.output().contains("P1: good (the JDK's SHA256with"), run::output);
        for (String form : List.of("detached with", "detached without", "attached with", "attached without")) {
            assertTrue(run.output().contains("(P7, " + form + " certificate)"), run::output);
        }
    }

    private static String base64(Path file) throws Exception {
        return Base64.getEncoder().encodeToString(Files.readAllBytes(file));
    }

    @ParameterizedTest
    @ValueSource(strings = {"RSA", "EC"})
    void signsATextWithEitherKey(String keyAlgorithm) throws Exception {
        Run run = demo("--key-algorithm", keyAlgorithm, "--out", "a/b c", TEXT);
        assertSigned(run, "a/b c", TEXT, keyAlgorithm);
        assertTrue(run.output().contains("Certificates that can sign: 1"), run::output);
        assertTrue(run.output().contains(keyAlgorithm + " certificate of "), run::output);
    }

    @Test
    void signsATextThatLooksLikeAnOption() throws Exception {
        assertSigned(demo("--key-algorithm", "EC", "--", "--help"), "signing-demo", "--help", "EC");
    }

    @Test
    void usesAnotherStoreAndListsItsCertificates() throws Exception {
        List<TestStore.Identity> identities = List.of(
            TestStore.identity("secp384r1", "CN=Grace Hopper,O=US Navy", 1, 30, 0),
            TestStore.identity("RSA", "CN=Ada Lovelace", 2, 10, 0));
        String store = TestStore.writePem(directory.resolve("keys.pem"), identities);
        Run run = demo("--store", store, "--out", "out", "text");
        assertSigned(run, "out", "text", "EC");
        assertTrue(run.output().contains("Certificates that can sign: 2"), run::output);
        assertTrue(run.output().contains("CN=Grace Hopper"), run::output);
        assertTrue(run.output().contains("CN=Ada Lovelace"), run::output);
    }

    @Test
    void verifiesWithTheAlgorithmThatTheCertificateDemands() throws Exception {
        TestStore.Identity identity = TestStore.identity("RSASSA-PSS", "CN=PSS", 1, 30, 0);
        Run run = demo("--store", TestStore.writePem(directory.resolve("pss.pem"), List.of(identity)), "text");
        assertEquals(0, run.status(), run::errors);
        assertTrue(run.output().contains("P1: good (the JDK's RSASSA-PSS)"), run::output);

        Signature verifier = Signature.getInstance("RSASSA-PSS");
        verifier.setParameter(new PSSParameterSpec("SHA-256", "MGF1", MGF1ParameterSpec.SHA256, 32, 1));
        verifier.initVerify(identity.certificate());
        verifier.update("text".getBytes(StandardCharsets.UTF_8));
        assertTrue(verifier.verify(Files.readAllBytes(directory.resolve("signing-demo/p1.sig"))));
    }

    @ParameterizedTest
    @CsvSource(delimiter = '|', value = {
        "1 | There is no data to sign | ''",
        "1 | does not exist: /nowhere/keys.p12: No such file or directory (toolkit error 1103) "
            + "| --store,file:/nowhere/keys.p12,text",
        "1 | names an unknown kind of store (toolkit error 1102) | --store,gopher:,text",
        "1 | Filter key algorithm \"DSA\" | --key-algorithm,DSA,text",
        "1 | (toolkit error 1301) | --store,file:expired.pem,text",
        "1 | Cannot write the signatures to file: | --out,file,text",
        "1 | read-only/content.bin | --out,read-only,text",
        "2 | Unknown option --bogus | --bogus",
        "2 | A value is missing after --out | --out",
        "2 | Give one text to sign | --out,out",
        "2 | Give one text to sign | a,b"})
    void explainsAFailure(int status, String message, String arguments) throws Exception {
        TestStore.writePem(directory.resolve("expired.pem"),
            List.of(TestStore.identity("secp256r1", "CN=Expired", 1, -1, 0)));
        Files.writeString(directory.resolve("file"), "not a directory");
        // A directory in the file's place, since no permission stops root.
        Files.createDirectories(directory.resolve("read-only/content.bin"));
        Run run = demo(arguments.replace("file:expired", "file:" + directory + "/expired").split(","));
        assertEquals(status, run.status(), run::errors);
        assertTrue(run.errors().contains(message), run::errors);
        assertEquals(status == 2, run.errors().contains("Usage: "), run::errors);
        assertFalse(run.errors().contains("\tat "), () -> "a stack trace: " + run.errors());
    }

    @Test
    void explainsThatTheLibraryCannotBeLoaded() throws Exception {
        Run run = demo(Map.of(), "-Dvex.jni.library=", "text");
        assertEquals(1, run.status());
        assertTrue(run.errors().contains("The signing library cannot be loaded: there is no such file"),
            run::errors);
        assertFalse(run.errors().contains("\tat "), () -> "a stack trace: " + run.errors());
    }

    @Test
    void explainsThatTheLocaleCannotEncodeTheText() throws Exception {
        Map<String, String> locale = Map.of("LC_ALL", "C");
        Run run = demo(locale, LIBRARY, TEXT);
        assertEquals(1, run.status());
        assertTrue(run.errors().contains("has a character that the process locale"), run::errors);
        assertTrue(run.errors().contains("LC_ALL=C.UTF-8"), run::errors);
        assertSigned(demo(locale, LIBRARY, "--key-algorithm", "EC", "plain"), "signing-demo", "plain", "EC");
    }

    @Test
    void printsItsHelp() throws Exception {
        Run run = demo("--help");
        assertEquals(0, run.status());
        assertTrue(run.output().startsWith("Usage: "), run::output);
        assertEquals("", run.errors());
    }
}
