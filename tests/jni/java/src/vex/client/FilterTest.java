package vex.client;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.math.BigInteger;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.cert.X509Certificate;
import java.time.Instant;
import java.util.ArrayList;
import java.util.Collections;
import java.util.HexFormat;
import java.util.List;
import java.util.Set;
import java.util.TreeSet;
import java.util.function.UnaryOperator;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import javax.security.auth.x500.X500Principal;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import vex.jni.TestStore;
import vex.jni.VCTKError;

/** The typed filters: their values, and which certificates pass. */
@Tag("client")
class FilterTest {
    private static final Path HEADER = Path.of(System.getProperty("vex.test.headers"), "VCTKFilter.h");
    private static final int DIGITAL_SIGNATURE = org.bouncycastle.asn1.x509.KeyUsage.digitalSignature;

    @TempDir
    private static Path directory;

    private static void assertFilter(int type, String value, Filter filter) {
        assertEquals(type, filter.type());
        assertEquals(value, filter.value());
    }

    @Test
    void writesValuesInTheFormOfTheToolkit() {
        assertFilter(1, "O=x", Filter.issuerContains("O=x"));
        assertFilter(2, "CN=x", Filter.subjectContains("CN=x"));
        assertFilter(3, "ff", Filter.serial(BigInteger.valueOf(255)));
        assertFilter(3, "-ff", Filter.serial(BigInteger.valueOf(-255)));
        assertFilter(4, "AB:CD", Filter.fingerprint("AB:CD"));
        assertFilter(5, "nonRepudiation", Filter.allowsKeyUsage(KeyUsage.NON_REPUDIATION));
        assertFilter(6, "EC", Filter.keyAlgorithm("EC"));
        assertFilter(7, "digitalSignature,cRLSign",
            Filter.keyUsages(KeyUsage.DIGITAL_SIGNATURE, KeyUsage.CRL_SIGN));
        assertFilter(8, "codeSigning,1.2.3", Filter.extendedKeyUsages("codeSigning", "1.2.3"));
        assertFilter(9, "2026-11-21T05:00:00Z", Filter.validAt(Instant.parse("2026-11-21T05:00:00.987Z")));
        assertFilter(10, "1.2.3.4", Filter.policy("1.2.3.4"));
        assertFilter(11, "3072", Filter.keySizeAtLeast(3072));
        assertFilter(12, "2.5.4.3=#0C0A4772C3BCC39F652C2078,2.5.4.6=#13024445",
            Filter.subject(new X500Principal("CN=\"Grüße, x\",C=DE")));
        // A BMPString, of which Java makes a wrong text.
        byte[] name = HexFormat.of().parseHex("301831163007060355040A1300300B06035504031E0400FC0078");
        assertFilter(12, "2.5.4.10=#1300+2.5.4.3=#1E0400FC0078", Filter.subject(new X500Principal(name)));
        assertFilter(13, "2.5.4.10=#130179", Filter.issuer(new X500Principal("O=y")));
    }

    @Test
    void refusesImpossibleValues() {
        assertThrows(IllegalArgumentException.class, () -> Filter.keySizeAtLeast(0));
        assertThrows(IllegalArgumentException.class, Filter::keyUsages);
        assertThrows(IllegalArgumentException.class, Filter::extendedKeyUsages);
    }

    /** A filter, its number, and the subjects of the certificates that pass it. */
    private record Expected(int type, UnaryOperator<SigningClient.Builder> filter, String... subjects) {}

    @Test
    void theRightCertificatesPass() throws Exception {
        X509Certificate one;
        List<TestStore.Identity> identities = new ArrayList<>();
        identities.add(TestStore.identity("RSA", "CN=One,O=Left", 0x1001, 30, 0));
        identities.add(TestStore.identity("secp256r1", "CN=Two,O=Left", 0x1002, 60, DIGITAL_SIGNATURE));
        identities.add(TestStore.identity("secp384r1", "CN=Three,O=Grün", 0x1003, 90,
            org.bouncycastle.asn1.x509.KeyUsage.nonRepudiation));
        one = identities.get(0).certificate();
        String store = TestStore.writePem(directory.resolve("store.pem"), identities);

        List<Expected> table = List.of(
            new Expected(1, b -> b.issuerContains("o=left"), "One", "Two"),
            new Expected(2, b -> b.subjectContains("cn=t"), "Three", "Two"),
            new Expected(2, b -> b.subjectContains("grÜn"), "Three"),
            new Expected(3, b -> b.serial(BigInteger.valueOf(0x1002)), "Two"),
            new Expected(4, b -> b.certificate(one), "One"),
            new Expected(5, b -> b.allowsKeyUsage(KeyUsage.DIGITAL_SIGNATURE), "One", "Two"),
            new Expected(6, b -> b.keyAlgorithm(KeyAlgorithm.EC), "Three", "Two"),
            new Expected(7, b -> b.keyUsages(KeyUsage.DIGITAL_SIGNATURE), "Two"),
            new Expected(8, b -> b.extendedKeyUsages("codeSigning")),
            new Expected(9, b -> b.validAt(Instant.now().plusSeconds(45 * 86400)), "Three", "Two"),
            new Expected(10, b -> b.policy("1.2.3.4")),
            new Expected(11, b -> b.keySizeAtLeast(384), "One", "Three"),
            new Expected(12, b -> b.subject(new X500Principal("o=GRÜN,cn=three")), "Three"),
            new Expected(13, b -> b.issuer(new X500Principal("o=left,cn=two")), "Two"));
        Set<Integer> known = typesOfTheToolkit();
        Set<Integer> tried = new TreeSet<>();
        for (Expected expected : table) {
            SigningClient.Builder builder = expected.filter().apply(SigningClient.store(store));
            tried.add(expected.type());
            if (known.contains(expected.type())) {
                try (SigningClient client = builder.open()) {
                    assertEquals(List.of(expected.subjects()), subjects(client), "filter " + expected.type());
                }
            } else {
                // A toolkit that does not know the filter refuses it: otherwise every certificate would pass.
                SigningException e = assertThrows(SigningException.class, builder::open);
                assertEquals(VCTKError.FILTER_TYPE, e.number(), "filter " + expected.type());
            }
        }
        assertTrue(tried.containsAll(known), () -> "some filters of the toolkit have no typed method: " + known);
    }

    private static List<String> subjects(SigningClient client) throws SigningException {
        List<String> names = new ArrayList<>();
        for (CertificateInfo info : client.certificates()) {
            names.add(info.subjectText().replaceAll(".*CN=(\\w+).*", "$1"));
        }
        Collections.sort(names);
        return names;
    }

    private static Set<Integer> typesOfTheToolkit() throws Exception {
        Set<Integer> types = new TreeSet<>();
        Matcher matcher = Pattern.compile("VCTK_FILTER_\\w+ = (\\d+);").matcher(Files.readString(HEADER));
        while (matcher.find()) {
            types.add(Integer.valueOf(matcher.group(1)));
        }
        assertFalse(types.isEmpty());
        return types;
    }
}
