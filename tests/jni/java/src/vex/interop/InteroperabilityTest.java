package vex.interop;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.nio.file.Path;
import java.security.Security;
import java.security.cert.X509Certificate;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Optional;
import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.MethodSource;
import vex.client.SigningProvider;

/** Every cell of the page's table of programs and keys, on this JDK. */
@Tag("interop")
class InteroperabilityTest {
    private static final Map<String, Program> PROGRAMS = new LinkedHashMap<>();

    static {
        PROGRAMS.put("TLS 1.2 client", Tls.client("TLSv1.2"));
        PROGRAMS.put("TLS 1.3 client", Tls.client("TLSv1.3"));
        PROGRAMS.put("TLS 1.2 server", Tls.server("TLSv1.2"));
        PROGRAMS.put("TLS 1.3 server", Tls.server("TLSv1.3"));
        PROGRAMS.put("XML signature", XmlSignatures::verifiedByTheJdk);
        PROGRAMS.put("XML signature, verified by `xmlsec1`", XmlSignatures::verifiedByXmlsec);
        PROGRAMS.put("`jarsigner`", JdkTools::jarsigner);
        PROGRAMS.put("`keytool -certreq`", JdkTools::certificateRequest);
        PROGRAMS.put("Bouncy Castle, CMS", BouncyCastle::cms);
        PROGRAMS.put("Bouncy Castle, CMS, verified by `openssl`", BouncyCastle::cmsVerifiedByOpenSsl);
        PROGRAMS.put("Bouncy Castle, PKCS #10", BouncyCastle::request);
        PROGRAMS.put("JWS", Jws::sign);
        PROGRAMS.put("PDFBox, detached", Pdf::verifiedByBouncyCastle);
        PROGRAMS.put("PDFBox, detached, verified by `openssl`", Pdf::verifiedByOpenSsl);
    }

    @TempDir
    private static Path directory;

    private static Map<KeyKind, List<X509Certificate>> chains;
    private static Page page;

    @BeforeAll
    static void createStores() throws Exception {
        Security.addProvider(new SigningProvider());
        page = new Page("Program");
        chains = Signer.writeFiles(directory);
    }

    @AfterAll
    static void removeProvider() {
        Security.removeProvider(SigningProvider.NAME);
    }

    private static Signer open(KeyKind kind, boolean ours) throws Exception {
        return Signer.open(kind, ours, chains.get(kind), directory.resolve(kind.name()));
    }

    @Test
    void thePageHasEachProgramAndEachKey() {
        assertEquals(new ArrayList<>(PROGRAMS.keySet()), page.rows());
        assertEquals(Arrays.stream(KeyKind.values()).map(KeyKind::toString).toList(), page.columns());
    }

    static List<Arguments> cells() {
        List<Arguments> cells = new ArrayList<>();
        for (String program : PROGRAMS.keySet()) {
            for (KeyKind kind : KeyKind.values()) {
                cells.add(Arguments.of(program, kind));
            }
        }
        return cells;
    }

    @ParameterizedTest(name = "{0}: {1}")
    @MethodSource("cells")
    void worksAsThePageSays(String program, KeyKind kind) throws Exception {
        Optional<String> refusal = page.refusal(program, kind.toString());
        Outcome.require(refusal, () -> PROGRAMS.get(program).sign(open(kind, true)));
        if (refusal.isPresent()) {
            // Otherwise the reason would be ours.
            Outcome.require(refusal, () -> PROGRAMS.get(program).sign(open(kind, false)));
        }
    }
}
