package vex.client;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.io.InputStream;
import java.io.Reader;
import java.math.BigInteger;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.KeyStore;
import java.security.PublicKey;
import java.security.cert.CertificateFactory;
import java.security.cert.X509CRL;
import java.security.cert.X509Certificate;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Collectors;
import java.util.stream.Stream;
import org.bouncycastle.openssl.PEMParser;
import org.bouncycastle.operator.jcajce.JcaContentVerifierProviderBuilder;
import org.bouncycastle.pkcs.PKCS10CertificationRequest;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.ValueSource;
import vex.jni.Run;
import vex.jni.TestJar;
import vex.jni.TestStore;

/** The JDK's tools sign with RSA and EC keys when their command line names the provider. */
@Tag("tools")
class JdkToolsTest {
    private static final Path BUNDLED_JAR = Path.of(System.getProperty("vex.test.bundled"));

    @TempDir
    private Path directory;

    @BeforeEach
    void createJars() throws Exception {
        Files.createSymbolicLink(directory.resolve("tavclientjni-bundled.jar"), BUNDLED_JAR);
        TestJar.write(directory.resolve("app.jar"));
    }

    private static TestStore.Identity identity(String algorithm) throws Exception {
        return TestStore.identity(algorithm.equals("EC") ? "secp256r1" : algorithm, "CN=Signer", 1, 30, 0);
    }

    private Run run(List<String> command) throws Exception {
        ProcessBuilder builder = new ProcessBuilder(command).directory(directory.toFile()).redirectErrorStream(true);
        builder.environment().put("SOFTHSM2_CONF", directory.resolve("softhsm2.conf").toString());
        // Each tool is a JVM that ends before optimised code pays off.
        builder.environment().put("JAVA_TOOL_OPTIONS", "-XX:TieredStopAtLevel=1 -XX:+UseSerialGC");
        return Run.of(builder);
    }

    private Run tool(String name, String... arguments) throws Exception {
        return toolWithStore("file:" + directory.resolve("keys.p12"), name, arguments);
    }

    private Run toolWithStore(String store, String name, String... arguments) throws Exception {
        List<String> command = new ArrayList<>(List.of(Run.jdkProgram(name),
            "-J--enable-native-access=ALL-UNNAMED", "-J--class-path=tavclientjni-bundled.jar", "-keystore", "NONE",
            "-storetype", "VexClient", "-storepass", TestStore.PIN, "-providerClass", SigningProvider.class.getName(),
            "-providerArg", store));
        command.addAll(List.of(arguments));
        return run(command);
    }

    /** Writes the store and returns the alias of its key, which is its name in the file. */
    private String writeStore(TestStore.Identity signer) throws Exception {
        TestStore.writePkcs12(directory.resolve("keys.p12"), List.of(signer));
        return "key0";
    }

    private InputStream open(String name) throws IOException {
        return Files.newInputStream(directory.resolve(name));
    }

    @ParameterizedTest
    @ValueSource(strings = {"RSA", "EC"})
    void keytoolCreatesRequestsCertificatesAndRevocationLists(String algorithm) throws Exception {
        TestStore.Identity signer = identity(algorithm);
        PublicKey publicKey = signer.certificate().getPublicKey();
        String alias = writeStore(signer);

        tool("keytool", "-certreq", "-alias", alias, "-file", "request").succeeded();
        try (Reader reader = Files.newBufferedReader(directory.resolve("request"));
                PEMParser pem = new PEMParser(reader)) {
            PKCS10CertificationRequest request = (PKCS10CertificationRequest) pem.readObject();
            assertTrue(request.isSignatureValid(new JcaContentVerifierProviderBuilder().build(publicKey)));
        }

        CertificateFactory factory = CertificateFactory.getInstance("X.509");
        tool("keytool", "-gencert", "-alias", alias, "-infile", "request", "-outfile", "certificate").succeeded();
        try (InputStream stream = open("certificate")) {
            X509Certificate issued = (X509Certificate) factory.generateCertificate(stream);
            issued.verify(publicKey);
            assertEquals(publicKey, issued.getPublicKey());
        }

        tool("keytool", "-gencrl", "-alias", alias, "-id", "4711", "-file", "crl").succeeded();
        try (InputStream stream = open("crl")) {
            X509CRL list = (X509CRL) factory.generateCRL(stream);
            list.verify(publicKey);
            assertNotNull(list.getRevokedCertificate(BigInteger.valueOf(4711)));
        }
    }

    /** What keytool prints as the aliases of the entries. */
    private static List<String> aliases(Run list) {
        return Pattern.compile("^(.*), [^,]+, \\d+, PrivateKeyEntry, $", Pattern.MULTILINE).matcher(list.output())
            .results().map(found -> found.group(1)).sorted().toList();
    }

    @Test
    void theToolsTakeNamesAndFingerprints() throws Exception {
        TestStore.Identity named = TestStore.identity("secp256r1", "CN=named", 1, 30, 0);
        TestStore.Identity renewed = TestStore.identity("secp256r1", "CN=renewed", 2, 60, 0);
        TestStore.Identity first = TestStore.identity("secp256r1", "CN=first", 3, 30, 0);
        TestStore.Identity odd = TestStore.identity("secp256r1", "CN=odd", 4, 30, 0);
        TestStore.writeNamed(directory.resolve("keys.p12"), List.of(TestStore.Named.of("Meier, Büro 3", named),
            TestStore.Named.of("signer", first), TestStore.Named.of("Signer", renewed),
            TestStore.Named.of("line\nbreak, Nov 22, 2026, PrivateKeyEntry, ", odd)));
        assertEquals(Stream.of("Meier, Büro 3", Certificates.fingerprint(first.certificate()),
            Certificates.fingerprint(renewed.certificate()), Certificates.fingerprint(odd.certificate())).sorted()
            .toList(), aliases(tool("keytool", "-list").succeeded()));

        Map<String, TestStore.Identity> signers = Map.of("Meier, Büro 3", named, "SIGNER", renewed,
            Certificates.fingerprint(first.certificate()).toLowerCase(), first);
        for (Map.Entry<String, TestStore.Identity> signer : signers.entrySet()) {
            TestJar.write(directory.resolve("app.jar"));
            tool("jarsigner", "app.jar", signer.getKey()).succeeded();
            TestJar.assertSignedBy(directory.resolve("app.jar"), signer.getValue().certificate());
        }
    }

    /** keytool -selfcert signs the new certificate and then tries to put it into the store. */
    @ParameterizedTest
    @CsvSource({"RSA,-selfcert", "EC,-selfcert", "EC,-delete", "EC,-changealias -destalias other",
        "EC,-storepasswd -new other-PIN"})
    void keytoolSaysThatTheStoreIsReadOnly(String algorithm, String command) throws Exception {
        String alias = writeStore(identity(algorithm));
        List<String> arguments = new ArrayList<>(List.of(command.split(" ")));
        if (!command.startsWith("-storepasswd")) {
            arguments.addAll(List.of("-alias", alias));
        }
        Run run = tool("keytool", arguments.toArray(new String[0]));
        assertEquals(1, run.status(), run.output());
        assertTrue(run.output().contains("The toolkit's stores are read only"), run.output());
    }

    @ParameterizedTest
    @ValueSource(strings = {"RSA", "EC"})
    void jarsignerSignsJars(String algorithm) throws Exception {
        TestStore.Identity signer = identity(algorithm);
        tool("jarsigner", "app.jar", writeStore(signer)).succeeded();
        TestJar.assertSignedBy(directory.resolve("app.jar"), signer.certificate());
    }

    @ParameterizedTest
    @ValueSource(strings = {"RSA", "EC"})
    void jarsThatAreSignedWithAChainVerifyStrictlyWithTheRoot(String algorithm) throws Exception {
        List<TestStore.Identity> chain = TestStore.chain(algorithm.equals("EC") ? "secp256r1" : algorithm, 4);
        TestStore.writeChain(directory.resolve("keys.p12"), chain);
        tool("jarsigner", "app.jar", "key").succeeded();
        Files.writeString(directory.resolve("root.pem"),
            TestStore.pem("CERTIFICATE", chain.get(3).certificate().getEncoded()));
        run(List.of(Run.jdkProgram("keytool"), "-importcert", "-noprompt", "-alias", "root", "-file", "root.pem",
            "-keystore", "roots.p12", "-storepass", TestStore.PIN)).succeeded();
        Run verified = run(List.of(Run.jdkProgram("jarsigner"), "-verify", "-strict", "-keystore", "roots.p12",
            "-storepass", TestStore.PIN, "app.jar"));
        assertEquals(0, verified.status(), verified.output());
        assertTrue(verified.output().contains("jar verified."), verified.output());
    }

    /** The ciphers are those of Java 8: RC2 with 40 bits for certificates, and triple DES for keys. */
    @ParameterizedTest
    @ValueSource(strings = {"RSA", "EC"})
    void signsWithAFileThatKeytoolWroteTheOldWay(String algorithm) throws Exception {
        run(List.of(Run.jdkProgram("keytool"), "-J-Dkeystore.pkcs12.legacy", "-genkeypair", "-alias", "old", "-keyalg",
            algorithm, "-dname", "CN=Old", "-keystore", "old.p12", "-storetype", "PKCS12", "-storepass",
            TestStore.PIN)).succeeded();
        Run info = run(List.of("openssl", "pkcs12", "-legacy", "-info", "-noout", "-in", "old.p12", "-passin",
            "pass:" + TestStore.PIN)).succeeded();
        assertTrue(info.output().contains("Encrypted data: pbeWithSHA1And40BitRC2-CBC"), info.output());
        assertTrue(info.output().contains("Keybag: pbeWithSHA1And3-KeyTripleDES-CBC"), info.output());
        assertTrue(info.output().contains("MAC: sha1"), info.output());

        KeyStore written = KeyStore.getInstance(directory.resolve("old.p12").toFile(), TestStore.PIN.toCharArray());
        X509Certificate signer = (X509Certificate) written.getCertificate("old");
        toolWithStore("file:" + directory.resolve("old.p12"), "jarsigner", "app.jar",
            "old").succeeded();
        TestJar.assertSignedBy(directory.resolve("app.jar"), signer);
    }

    // ---- A token with a key that may not sign ----

    /** Imports a key with the additional attribute, and its certificate, into the token. Returns their label. */
    private String importKey(String subject, String attribute) throws Exception {
        Path file = directory.resolve(subject + ".p12");
        TestStore.Identity identity = TestStore.identity("RSA", "CN=" + subject, 1, 30, 0);
        TestStore.writePkcs12(file, List.of(identity));
        Path configuration = Files.writeString(directory.resolve(subject + ".cfg"), "name = Test\nlibrary = "
            + System.getProperty("vex.test.softhsm") + "\nslotListIndex = 0\n"
            + "attributes(import,CKO_PRIVATE_KEY,*) = {\n" + attribute + "\n}\n");
        run(List.of(Run.jdkProgram("keytool"), "-importkeystore", "-noprompt", "-srckeystore", file.toString(),
            "-srcstoretype", "PKCS12", "-srcstorepass", TestStore.PIN, "-srcalias", "key0", "-destalias", subject,
            "-destkeystore", "NONE", "-deststoretype", "PKCS11", "-deststorepass", TestStore.PIN, "-addprovider",
            "SunPKCS11", "-providerArg", configuration.toString())).succeeded();
        return subject;
    }

    @Test
    void passesOverATokenKeyThatMayNotSign() throws Exception {
        Files.createDirectory(directory.resolve("tokens"));
        Files.writeString(directory.resolve("softhsm2.conf"),
            "directories.tokendir = " + directory.resolve("tokens") + "\n");
        run(List.of("softhsm2-util", "--init-token", "--free", "--label", "Test", "--so-pin", "12345678", "--pin",
            TestStore.PIN)).succeeded();
        String signs = importKey("signs", "CKA_SIGN = true");
        String decrypts = importKey("decrypts", "CKA_SIGN = false");

        String store = "pkcs11:token=Test?module-path=" + System.getProperty("vex.test.softhsm");
        Run list = toolWithStore(store, "keytool", "-list").succeeded();
        assertTrue(list.output().contains("Your keystore contains 1 entry"), list.output());
        assertTrue(list.output().contains(signs + ","), list.output());
        assertFalse(list.output().contains(decrypts + ","), list.output());
        toolWithStore(store, "jarsigner", "app.jar", signs).succeeded();
    }

    // ---- The commands of the page ----

    private static String pageCommands() throws Exception {
        String page = Files.readString(Path.of(System.getProperty("vex.test.docs"), "jca-provider.md"));
        Matcher block = Pattern.compile("^```sh\n(.*?)^```", Pattern.DOTALL | Pattern.MULTILINE).matcher(page);
        String commands = block.results().map(found -> found.group(1)).collect(Collectors.joining());
        assertTrue(commands.contains("keytool ") && commands.contains("jarsigner "), commands);
        return commands;
    }

    private Run runPage(String commands) throws Exception {
        return run(List.of("sh", "-ec", "PATH=\"" + System.getProperty("java.home") + "/bin:$PATH\"\n" + commands));
    }

    @Test
    void commandsOfThePageSignWithTheDemoStore() throws Exception {
        Run run = runPage(pageCommands()).succeeded();
        assertTrue(run.output().contains("Your keystore contains 2 entries"), run.output());
        assertTrue(run.output().contains("jar signed."), run.output());
        assertTrue(run.output().contains("jar verified."), run.output());
    }

    @ParameterizedTest
    @ValueSource(strings = {"RSA", "EC"})
    void commandsOfThePageSignWithAnotherStore(String algorithm) throws Exception {
        TestStore.Identity signer = identity(algorithm);
        writeStore(signer);
        Files.writeString(directory.resolve("pin"), TestStore.PIN);
        String commands = pageCommands().replaceFirst("(?m)^store=.*$", "store=" + Matcher.quoteReplacement(
            "'file:" + directory.resolve("keys.p12") + "?pin-source=file:" + directory.resolve("pin") + "'"));
        assertTrue(commands.contains("keys.p12"), commands);
        Run run = runPage(commands).succeeded();
        assertTrue(run.output().contains("Your keystore contains 1 entry"), run.output());
        TestJar.assertSignedBy(directory.resolve("app.jar"), signer.certificate());
    }
}
