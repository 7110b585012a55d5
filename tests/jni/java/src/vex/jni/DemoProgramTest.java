package vex.jni;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.ByteArrayInputStream;
import java.io.InputStream;
import java.lang.reflect.Field;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.MessageDigest;
import java.security.cert.CertificateFactory;
import java.security.cert.X509Certificate;
import java.time.Instant;
import java.time.temporal.ChronoUnit;
import java.util.ArrayList;
import java.util.Base64;
import java.util.HexFormat;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.Set;
import java.util.TreeSet;
import java.util.regex.Pattern;
import java.util.stream.Collectors;
import java.util.stream.Stream;
import org.bouncycastle.asn1.x509.KeyUsage;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/** The demo program as its users start it, in a JVM of its own. */
@Tag("demo")
class DemoProgramTest {
    private static final String TEXT = "Grüße, 漢字 😀\r\nsecond line";
    private static final String SHA256_OID = "2.16.840.1.101.3.4.2.1";
    private static final Set<String> FILES = new TreeSet<>(List.of("content.bin", "cert.pem", "p1.b64", "p1.sig",
        "p7-detached.der", "p7-detached.pem", "p7-detached-cert.der", "p7-detached-cert.pem",
        "p7-attached.der", "p7-attached.pem", "p7-attached-cert.der", "p7-attached-cert.pem"));

    @TempDir
    private Path directory;

    private record Run(int status, String output, String errors) {}

    /** Started without any option for newer JVMs; the jar has to make do. */
    private Run demo(Map<String, String> environment, byte[] input, String... arguments) throws Exception {
        List<String> command = new ArrayList<>(List.of(
            Path.of(System.getProperty("java.home"), "bin", "java").toString(),
            "-Dvex.jni.library=" + System.getProperty("vex.jni.library"),
            "-jar", System.getProperty("vex.test.demo")));
        command.addAll(List.of(arguments));
        Path output = Files.createTempFile(directory.getParent(), "demo", ".out");
        Path errors = Files.createTempFile(directory.getParent(), "demo", ".err");
        Path inputFile = Files.write(Files.createTempFile(directory.getParent(), "demo", ".in"), input);
        ProcessBuilder builder = new ProcessBuilder(command)
            .directory(directory.toFile())
            .redirectInput(inputFile.toFile())
            .redirectOutput(output.toFile())
            .redirectError(errors.toFile());
        builder.environment().putAll(environment);
        int status = builder.start().waitFor();
        Run run = new Run(status, Files.readString(output), Files.readString(errors));
        Files.delete(output);
        Files.delete(errors);
        Files.delete(inputFile);
        assertFalse(run.errors().contains("WARNING"), run::errors);
        return run;
    }

    private Run demo(String... arguments) throws Exception {
        return demo(Map.of(), new byte[0], arguments);
    }

    /** Asserts that the demo signed the content, by verifying the files in the directory it wrote to. */
    private void assertSigned(Run run, String out, byte[] content, String keyAlgorithm) throws Exception {
        assertEquals(0, run.status(), run::errors);
        assertEquals("", run.errors());
        Path made = directory.resolve(out);
        try (Stream<Path> files = Files.list(made)) {
            assertEquals(FILES,
                files.map(file -> file.getFileName().toString()).collect(Collectors.toCollection(TreeSet::new)));
        }
        for (String file : FILES) {
            assertTrue(run.output().contains(out + "/" + file), () -> file + " is not told of in " + run.output());
        }

        assertArrayEquals(content, Files.readAllBytes(made.resolve("content.bin")));
        X509Certificate certificate;
        try (InputStream stream = new ByteArrayInputStream(Files.readAllBytes(made.resolve("cert.pem")))) {
            certificate = (X509Certificate) CertificateFactory.getInstance("X.509").generateCertificate(stream);
        }
        assertEquals(keyAlgorithm, certificate.getPublicKey().getAlgorithm());
        String p1 = Files.readString(made.resolve("p1.b64")).strip();
        assertTrue(Signatures.isP1Good(p1, content, certificate, "SHA256"));
        assertArrayEquals(Base64.getDecoder().decode(p1), Files.readAllBytes(made.resolve("p1.sig")));
        for (boolean detached : new boolean[] {true, false}) {
            for (boolean withCertificate : new boolean[] {true, false}) {
                String name = "p7-" + (detached ? "detached" : "attached") + (withCertificate ? "-cert" : "");
                byte[] der = Files.readAllBytes(made.resolve(name + ".der"));
                Signatures.assertP7(Base64.getEncoder().encodeToString(der), content, detached, withCertificate,
                    certificate, SHA256_OID);
                String pem = Files.readString(made.resolve(name + ".pem"));
                assertTrue(pem.startsWith("-----BEGIN CMS-----\n") && pem.endsWith("-----END CMS-----\n"), pem);
                assertArrayEquals(der, Base64.getMimeDecoder().decode(pem.replaceAll("-----.*-----", "")));
            }
        }
        assertTrue(run.output().contains("P1: good"), run::output);
        for (String form : List.of("detached with", "detached without", "attached with", "attached without")) {
            assertTrue(run.output().contains("P7, " + form + " certificate: good (openssl)"), run::output);
        }
    }

    @ParameterizedTest
    @CsvSource({"RSA", "EC"})
    void textArgumentIsSigned(String keyAlgorithm) throws Exception {
        Run run = demo("--filter", "key-algorithm=" + keyAlgorithm, "--out", "a/b c", TEXT);
        assertSigned(run, "a/b c", TEXT.getBytes(StandardCharsets.UTF_8), keyAlgorithm);
        assertTrue(run.output().contains("1 certificate can sign:"), run::output);
        assertTrue(run.output().contains(keyAlgorithm + " certificate of "), run::output);
        assertTrue(run.output().contains("openssl cms -verify -binary -inform DER -in 'a/b c/p7-attached.der'"),
            run::output);
    }

    @Test
    void fileIsSignedAsText() throws Exception {
        Files.writeString(directory.resolve("text"), TEXT);
        assertSigned(demo("--file", "text", "--filter", "key-algorithm=EC"), "signing-demo",
            TEXT.getBytes(StandardCharsets.UTF_8), "EC");
    }

    @ParameterizedTest
    @CsvSource({"'--filter,key-algorithm=EC'", "'--filter,key-algorithm=EC,-'"})
    void standardInputIsSignedAsText(String arguments) throws Exception {
        byte[] bytes = (TEXT + "\n").getBytes(StandardCharsets.UTF_8);
        assertSigned(demo(Map.of(), bytes, arguments.split(",")), "signing-demo", bytes, "EC");
    }

    @Test
    void base64AndBinaryAreSignedAsBytes() throws Exception {
        byte[] bytes = {0, 1, 2, (byte) 0x80, (byte) 0xff, '\r', '\n', 0};
        assertSigned(demo("--base64", "--filter", "key-algorithm=EC", Base64.getEncoder().encodeToString(bytes)),
            "signing-demo", bytes, "EC");
        Files.write(directory.resolve("bytes"), bytes);
        assertSigned(demo("--binary", "--file", "bytes", "--filter", "key-algorithm=EC"), "signing-demo", bytes, "EC");
        byte[] wrapped = Base64.getMimeEncoder().encode("x".repeat(200).getBytes(StandardCharsets.US_ASCII));
        assertSigned(demo(Map.of(), wrapped, "--base64", "--filter", "key-algorithm=EC"), "signing-demo",
            "x".repeat(200).getBytes(StandardCharsets.US_ASCII), "EC");
    }

    @ParameterizedTest
    @CsvSource({"SHA-384, SHA384withRSA", "sha512, SHA512withRSA", "SHA3-256, SHA3-256withRSA",
        "SHA2-512/256, SHA512/256withRSA"})
    void digestIsChosen(String digest, String jdkName) throws Exception {
        Run run = demo("--digest", digest, "--filter", "key-algorithm=RSA", "text");
        assertEquals(0, run.status(), run::errors);
        assertTrue(run.output().contains("P1: good (the JDK's " + jdkName + ")"), run::output);
    }

    @Test
    void otherStoreIsUsedAndItsCertificatesAreListedReadably() throws Exception {
        List<TestStore.Identity> identities = List.of(
            TestStore.identity("secp384r1", "CN=Grace Hopper,O=US Navy", 1, 30, 0),
            TestStore.identity("RSA", "CN=Ada Lovelace", 2, 10, 0));
        String store = TestStore.writePem(directory.resolve("keys.pem"), identities);
        Run run = demo("--store", store, "--out", "out", "text");
        assertSigned(run, "out", "text".getBytes(StandardCharsets.US_ASCII), "EC");
        assertTrue(run.output().contains("2 certificates can sign:"), run::output);
        assertTrue(run.output().contains("CN=Grace Hopper"), run::output);
        assertTrue(run.output().contains("CN=Ada Lovelace"), run::output);
    }

    @Test
    void everyFilterHasItsName() throws Exception {
        List<TestStore.Identity> identities = List.of(
            TestStore.identity("secp384r1", "CN=Wanted,O=All", 0x1234, 30, KeyUsage.digitalSignature),
            TestStore.identity("secp384r1", "CN=Wanted\\, too,O=All", 0x1235, 60, 0));
        String store = TestStore.writePem(directory.resolve("keys.pem"), identities);
        List<String> arguments = new ArrayList<>(List.of("--store", store, "--out", "out"));
        String fingerprint = HexFormat.of().formatHex(MessageDigest.getInstance("SHA-256").digest(
            identities.get(0).certificate().getEncoded()));
        // Types whose values are so different that none fits in another's place; the rest is among the failures.
        Map<String, String> filters = Map.ofEntries(
            Map.entry("issuer", "=all"), Map.entry("subject", "=wanted"), Map.entry("serial", "1234"),
            Map.entry("fingerprint", fingerprint), Map.entry("key-usage", "digitalSignature"),
            Map.entry("key-algorithm", "EC"), Map.entry("key-usage-all", "digitalSignature"),
            Map.entry("valid-at", Instant.now().truncatedTo(ChronoUnit.SECONDS).toString()),
            Map.entry("key-size", "384"), Map.entry("subject-name", "o=all,cn=wanted"),
            Map.entry("issuer-name", "o=all,cn=wanted"));
        filters.forEach((name, value) -> arguments.addAll(List.of("--filter", name + "=" + value)));
        arguments.add("text");
        assertSigned(demo(arguments.toArray(String[]::new)), "out", "text".getBytes(StandardCharsets.US_ASCII), "EC");

        String help = demo("--help").output();
        for (Field field : TAVClientJNI.class.getFields()) {
            String name = field.getName().replaceFirst("^FILTER_", "").replace('_', '-').toLowerCase(Locale.ROOT);
            assertTrue(Pattern.compile("[ ,]" + name + "(,|\\R)").matcher(help).find(), name + " is not in " + help);
        }
    }

    @Test
    void withoutOpenSslTheP7SignaturesAreOnlyMade() throws Exception {
        Run run = demo(Map.of("PATH", "/nowhere"), new byte[0], "text");
        assertEquals(0, run.status(), run::errors);
        assertTrue(run.output().contains("P7: not verified here, the openssl command is not on the PATH"), run::output);
    }

    @ParameterizedTest
    @CsvSource(delimiter = '|', value = {
        "1 | There is nothing to sign | ''",
        "1 | The file missing cannot be read | --file,missing",
        "1 | is not a UTF-8 text. Use --binary | --file,latin1",
        "1 | U+0000 | --file,zero",
        "1 | The input is not Base64 | --base64,ab!c",
        "1 | The store file does not exist (toolkit error 1103) | --store,file:/nowhere/keys.p12,text",
        "1 | names an unknown kind of store (toolkit error 1102) | --store,gopher:,text",
        "1 | digest algorithm MD5 is refused: The digest algorithm is broken | --digest,MD5,text",
        "1 | The filter value \"xyz\" is refused | --filter,serial=xyz,text",
        "1 | No certificate of the store can sign | --filter,subject=Nobody,text",
        "1 | No certificate of the store can sign | --filter,extended-key-usage=codeSigning,text",
        "1 | The filter value \"codeSigning\" is refused | --filter,policy=codeSigning,text",
        "1 | No certificate of the store can sign | --filter,policy=1.2.3,text",
        "1 | The output directory latin1 cannot be made | --out,latin1,text",
        "1 | The file read-only/content.bin cannot be written | --out,read-only,text",
        "2 | Unknown option --bogus | --bogus",
        "2 | A value is missing after --file | --file",
        "2 | More than one text | a,b",
        "2 | Both a file and a text | --file,latin1,text",
        "2 | exclude each other | --base64,--binary",
        "2 | --binary is for a file | --binary,text",
        "2 | Not a filter: colour=red | --filter,colour=red"})
    void failureIsExplained(int status, String message, String arguments) throws Exception {
        Files.write(directory.resolve("latin1"), "caf\u00e9".getBytes(StandardCharsets.ISO_8859_1));
        Files.write(directory.resolve("zero"), new byte[] {'a', 0});
        // A directory in the file's place, since no permission stops root.
        Files.createDirectories(directory.resolve("read-only/content.bin"));
        Run run = demo(arguments.split(","));
        assertEquals(status, run.status(), run::errors);
        assertTrue(run.errors().contains(message), run::errors);
        assertEquals(status == 2, run.errors().contains("Usage: "), run::errors);
    }

    @Test
    void libraryThatCannotBeLoadedIsExplained() throws Exception {
        ProcessBuilder builder = new ProcessBuilder(
            Path.of(System.getProperty("java.home"), "bin", "java").toString(), "-jar",
            System.getProperty("vex.test.demo"), "text").directory(directory.toFile()).redirectErrorStream(true);
        Process process = builder.start();
        process.getOutputStream().close();
        String output = new String(process.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        assertEquals(1, process.waitFor());
        assertTrue(output.contains("The signing library cannot be loaded. Tried: libTAVClientJNI.so"), output);
        assertFalse(output.contains("\tat "), "no stack trace: " + output);
    }

    @Test
    void textThatTheLocaleCannotEncodeIsExplained() throws Exception {
        Files.writeString(directory.resolve("text"), TEXT);
        Run run = demo(Map.of("LC_ALL", "C"), new byte[0], "--file", "text");
        assertEquals(1, run.status());
        assertTrue(run.errors().contains("has no character U+00FC"), run::errors);
        assertTrue(run.errors().contains("LC_ALL=C.UTF-8"), run::errors);
        assertSigned(demo(Map.of("LC_ALL", "C"), new byte[0], "--filter", "key-algorithm=EC", "plain"), "signing-demo",
            "plain".getBytes(StandardCharsets.US_ASCII), "EC");
    }

    @Test
    void helpIsShown() throws Exception {
        Run run = demo("--help");
        assertEquals(0, run.status());
        assertTrue(run.output().startsWith("Usage: "), run::output);
        assertEquals("", run.errors());
    }
}
