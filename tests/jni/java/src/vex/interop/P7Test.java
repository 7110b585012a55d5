package vex.interop;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;

import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.security.cert.X509Certificate;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import org.bouncycastle.cms.CMSSignedData;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.MethodSource;
import vex.client.CmsOption;
import vex.client.SigningClient;
import vex.jni.TestStore;

/** The toolkit's own CMS signatures, detached and attached, verified by those who trust only the root. */
@Tag("interop")
class P7Test {
    private static final byte[] DATA = "I owe you 100 euros.".getBytes(StandardCharsets.UTF_8);
    private static final byte[] OTHER_DATA = "I owe you 900 euros.".getBytes(StandardCharsets.UTF_8);

    /** A key, and the digest that the toolkit is given. */
    private record Case(KeyKind kind, String digest) {}

    private static final Map<String, Case> CASES = new LinkedHashMap<>();
    private static final Map<String, CmsVerifier> VERIFIERS = new LinkedHashMap<>();

    static {
        CASES.put("RSA", new Case(KeyKind.RSA, "SHA-256"));
        CASES.put("RSA, `SHA-256/PSS`", new Case(KeyKind.RSA, "SHA-256/PSS"));
        CASES.put("EC", new Case(KeyKind.EC, "SHA-256"));
        CASES.put("PSS certificate", new Case(KeyKind.PSS, "SHA-256"));
        CASES.put("Ed25519", new Case(KeyKind.ED25519, "SHA-256"));
        VERIFIERS.put("`openssl`", BouncyCastle::verifyWithOpenSsl);
        VERIFIERS.put("Bouncy Castle", BouncyCastle::verify);
        VERIFIERS.put("`certtool`", P7Test::verifyWithCertTool);
    }

    @TempDir
    private static Path directory;

    private static Map<KeyKind, List<X509Certificate>> chains;
    private static Page page;

    @BeforeAll
    static void createStores() throws Exception {
        page = new Page("P7 of");
        chains = Signer.writeFiles(directory);
    }

    @Test
    void thePageHasEachSignatureAndEachVerifier() {
        assertEquals(new ArrayList<>(CASES.keySet()), page.rows());
        assertEquals(new ArrayList<>(VERIFIERS.keySet()), page.columns());
    }

    static List<Arguments> cells() {
        List<Arguments> cells = new ArrayList<>();
        for (String signature : CASES.keySet()) {
            for (String verifier : VERIFIERS.keySet()) {
                cells.add(Arguments.of(signature, verifier));
            }
        }
        return cells;
    }

    @ParameterizedTest(name = "{0}: {1}")
    @MethodSource("cells")
    void verifiesAsThePageSays(String signature, String verifier) throws Exception {
        Outcome.require(page.refusal(signature, verifier), () -> check(CASES.get(signature), VERIFIERS.get(verifier)));
    }

    private static void check(Case signature, CmsVerifier verifier) throws Exception {
        Path files = directory.resolve(signature.kind().name());
        // The key belongs to the JDK and is not used here.
        Signer signer = Signer.open(signature.kind(), false, chains.get(signature.kind()), files);
        try (SigningClient client = SigningClient.file(signer.storeFile()).pin(TestStore.PIN.toCharArray())
                .digest(signature.digest()).open()) {
            byte[] attached = client.signCmsAttached(DATA, CmsOption.INCLUDE_CHAIN);
            assertArrayEquals(DATA, (byte[]) new CMSSignedData(attached).getSignedContent().getContent());
            verifier.verify(signer, attached, null);
            byte[] detached = client.signCmsDetached(DATA, CmsOption.INCLUDE_CHAIN);
            verifier.verify(signer, detached, DATA);
            assertThrows(AssertionError.class, () -> verifier.verify(signer, detached, OTHER_DATA));
        }
    }

    private static void verifyWithCertTool(Signer signer, byte[] signature, byte[] data) throws Exception {
        signer.write("signature", signature);
        List<String> command = new ArrayList<>(List.of("certtool", "--p7-verify", "--inder", "--load-ca-certificate",
            "root.pem", "--infile", "signature"));
        if (data != null) {
            signer.write("data", data);
            command.addAll(List.of("--load-data", "data"));
        }
        signer.run(command.toArray(new String[0]));
    }
}
