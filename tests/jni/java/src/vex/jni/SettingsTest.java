package vex.jni;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.security.MessageDigest;
import java.security.cert.X509Certificate;
import java.util.ArrayList;
import java.util.HexFormat;
import java.util.List;
import java.util.Locale;
import org.bouncycastle.asn1.x509.KeyUsage;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.ValueSource;

/** Digest algorithm, filters, single choice and certificate list, with a store of five certificates. */
@Tag("natives")
class SettingsTest {
    private static final int RSA = 0;
    private static final int P256 = 1;
    private static final int P384 = 2;

    private static List<TestStore.Identity> identities;
    private static String store;

    @BeforeAll
    static void makeStore(@TempDir Path directory) throws Exception {
        identities = List.of(
            TestStore.identity("RSA", "CN=Ada Lovelace,O=Analytical\\, Engines,C=GB", 0x0a1b2cL, 90,
                KeyUsage.digitalSignature | KeyUsage.nonRepudiation),
            TestStore.identity("secp256r1", "CN=Grace  Hopper,O=Navy", 0xff01L, 60,
                KeyUsage.keyAgreement | KeyUsage.digitalSignature),
            TestStore.identity("secp384r1", "CN=王小云,O=密码", 3, 30, 0),
            TestStore.identity("RSA", "CN=Yesterday", 4, -1, 0),
            TestStore.identity("secp256r1", "CN=Encryption", 5, 365, KeyUsage.keyAgreement));
        store = TestStore.writePem(directory.resolve("five.pem"), identities);
    }

    private static String fingerprint(int identity) throws Exception {
        byte[] digest = MessageDigest.getInstance("SHA-256").digest(certificate(identity).getEncoded());
        return HexFormat.of().withUpperCase().formatHex(digest);
    }

    private static X509Certificate certificate(int identity) {
        return identities.get(identity).certificate();
    }

    /** The fields of each record of the certificate list. */
    private static List<List<String>> records(Client client) {
        String list = client.certificateList();
        return list.isEmpty() ? List.of() : list.lines().map(line -> List.of(line.split(" ", -1))).toList();
    }

    private static void assertListed(Client client, int... expected) throws Exception {
        List<String> found = records(client).stream().map(record -> record.get(1)).sorted().toList();
        List<String> wanted = new ArrayList<>();
        for (int identity : expected) {
            wanted.add(fingerprint(identity));
        }
        assertEquals(wanted.stream().sorted().toList(), found);
    }

    @ParameterizedTest
    @ValueSource(strings = {"SHA1", "SHA-1", "sha1", "MD5", "md5"})
    void refusesAWeakDigestWithTheReason(String name) throws Exception {
        try (Client client = Client.open(store)) {
            client.setDigest("SHA384");
            assertEquals(1, Client.NATIVES.SetDigestAlg(client.handle(), name));
            assertEquals(VCTKError.DIGEST_WEAK, client.lastError());
            assertTrue(client.lastMessage().contains("collisions"), client.lastMessage());

            String p1 = client.require(client.p1SignString("text"));
            assertTrue(Signatures.isP1Good(p1, "text".getBytes(StandardCharsets.UTF_8), certificate(RSA), "SHA384"),
                "the algorithm stays unchanged");
        }
    }

    @ParameterizedTest
    @ValueSource(strings = {"SHA", "SHA25", "RSA", "SHA256withRSA", "CRC32", "漢"})
    void refusesOtherDigestNames(String name) {
        try (Client client = Client.open(store)) {
            assertEquals(1, Client.NATIVES.SetDigestAlg(client.handle(), name));
            long expected = name.equals("SHA") ? VCTKError.DIGEST_WEAK : VCTKError.DIGEST_UNKNOWN;
            assertEquals(expected, client.lastError());
        }
    }

    @Test
    void listsTheValidCertificatesWithTheirFields() throws Exception {
        try (Client client = Client.open(store)) {
            assertListed(client, RSA, P256, P384);
            for (List<String> record : records(client)) {
                assertEquals(7, record.size(), record::toString);
                int identity = record.get(4).equals("RSA") ? RSA : record.get(0).equals("03") ? P384 : P256;
                X509Certificate certificate = certificate(identity);
                assertEquals(fingerprint(identity), record.get(1));
                assertEquals(certificate.getNotBefore().toInstant().toString(), record.get(2));
                assertEquals(certificate.getNotAfter().toInstant().toString(), record.get(3));
                assertEquals(record.get(5), record.get(6), "self-signed");
            }
            List<String> serials = records(client).stream().map(record -> record.get(0)).sorted().toList();
            assertEquals(List.of("03", "0A1B2C", "FF01"), serials);
            List<String> keys = records(client).stream().map(record -> record.get(4)).sorted().toList();
            assertEquals(List.of("EC", "EC", "RSA"), keys);
            List<String> names = records(client).stream().map(record -> record.get(5)).toList();
            assertTrue(names.stream().anyMatch(name -> name.contains("CN=Ada\\20Lovelace")), names::toString);
            assertTrue(names.stream().anyMatch(name -> name.contains("O=Analytical\\,\\20Engines")), names::toString);
            assertTrue(names.stream().anyMatch(name -> name.contains("CN=Grace\\20\\20Hopper")), names::toString);
            assertTrue(names.stream().anyMatch(name -> name.contains("CN=王小云")), names::toString);
        }
    }

    @ParameterizedTest
    @CsvSource({
        "1, ada lovelace, RSA",
        "2, ADA, RSA",
        "2, Grace\\20\\20Hopper, P256",
        "2, 王小云, P384",
        "2, CN=, RSA+P256+P384",
        "2, Yesterday, ''",
        "2, Encryption, ''",
        "3, a1b2c, RSA",
        "3, 0A:1B:2C, RSA",
        "3, ff01, P256",
        "3, 03, P384",
        "5, digitalSignature, RSA+P256+P384",
        "5, NONREPUDIATION, RSA+P384",
        "5, keyAgreement, P256+P384",
        "6, RSA, RSA",
        "6, ec, P256+P384"})
    void listsTheCertificatesThatPassAFilter(long type, String value, String expected) throws Exception {
        try (Client client = Client.open(store)) {
            client.addFilter(type, value);
            assertListed(client, identitiesNamed(expected));
        }
    }

    private static int[] identitiesNamed(String names) {
        List<String> known = List.of("RSA", "P256", "P384");
        return names.isEmpty() ? new int[0] : List.of(names.split("\\+")).stream().mapToInt(known::indexOf).toArray();
    }

    @Test
    void listsTheCertificateThatPassesTheFingerprintFilter() throws Exception {
        for (int identity : new int[] {RSA, P256, P384}) {
            try (Client client = Client.open(store)) {
                client.addFilter(TAVClientJNI.FILTER_FINGERPRINT, fingerprint(identity).toLowerCase(Locale.ROOT));
                assertListed(client, identity);
                assertEquals(certificate(identity), Signatures.signerOf(client));
            }
        }
    }

    @Test
    void appliesAllFiltersUntilTheyAreCleared() throws Exception {
        try (Client client = Client.open(store)) {
            client.addFilter(TAVClientJNI.FILTER_KEY_ALGORITHM, "EC");
            client.addFilter(TAVClientJNI.FILTER_SUBJECT, "Hopper");
            assertListed(client, P256);
            client.addFilter(TAVClientJNI.FILTER_KEY_ALGORITHM, "RSA");
            assertEquals("", client.certificateList());
            assertNull(client.p1SignString("text"));
            assertEquals(VCTKError.NO_CERTIFICATE, client.lastError());
            assertTrue(client.lastMessage().endsWith(": 5 passed over: 5 not passing the filters"), client.lastMessage());

            assertEquals(0, Client.NATIVES.ClearFilter(client.handle()));
            assertListed(client, RSA, P256, P384);
            client.require(client.p1SignString("text"));
        }
    }

    @ParameterizedTest
    @ValueSource(longs = {0, 14, -1, 1L << 32 | 6, Long.MIN_VALUE})
    void refusesAnUnknownFilterType(long type) throws Exception {
        try (Client client = Client.open(store)) {
            assertEquals(1, Client.NATIVES.AddFilter(client.handle(), type, "RSA"));
            assertEquals(VCTKError.FILTER_TYPE, client.lastError());
            assertTrue(client.lastMessage().contains(Long.toUnsignedString(type)), client.lastMessage());
            assertListed(client, RSA, P256, P384);
        }
    }

    @ParameterizedTest
    @CsvSource({"3, xyz", "4, 00", "5, signing", "6, DSA"})
    void refusesAMalformedFilterValue(long type, String value) throws Exception {
        try (Client client = Client.open(store)) {
            assertEquals(1, Client.NATIVES.AddFilter(client.handle(), type, value));
            assertEquals(VCTKError.FILTER_VALUE, client.lastError());
            assertListed(client, RSA, P256, P384);
        }
    }

    @Test
    void signsWithTheLongestValidCertificateByDefault() throws Exception {
        try (Client client = Client.open(store)) {
            assertEquals(certificate(RSA), Signatures.signerOf(client));
            client.addFilter(TAVClientJNI.FILTER_KEY_ALGORITHM, "EC");
            assertEquals(certificate(P256), Signatures.signerOf(client));
        }
    }

    @ParameterizedTest
    @ValueSource(ints = {1, -1, 2, Integer.MIN_VALUE})
    void needsExactlyOneCertificateForSingleChoice(int choose) throws Exception {
        try (Client client = Client.open(store)) {
            assertEquals(0, Client.NATIVES.SetChooseSingleCert(client.handle(), choose));
            for (String signature : new String[] {
                    client.p1SignString("text"), client.p7SignString("text", true, true)}) {
                assertNull(signature);
                assertEquals(VCTKError.SEVERAL_CERTIFICATES, client.lastError());
            }
            client.addFilter(TAVClientJNI.FILTER_SUBJECT, "Hopper");
            assertEquals(certificate(P256), Signatures.signerOf(client));

            assertEquals(0, Client.NATIVES.ClearFilter(client.handle()));
            assertEquals(0, Client.NATIVES.SetChooseSingleCert(client.handle(), 0));
            client.require(client.p1SignString("text"));
        }
    }
}
