package vex.client;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.KeyStore;
import java.security.cert.X509Certificate;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.HashMap;
import java.util.HashSet;
import java.util.HexFormat;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.TreeMap;
import java.util.logging.Level;
import java.util.logging.Logger;
import java.util.regex.Pattern;
import javax.naming.InvalidNameException;
import javax.naming.NamingEnumeration;
import javax.naming.directory.Attribute;
import javax.naming.ldap.LdapName;
import javax.naming.ldap.Rdn;
import javax.security.auth.x500.X500Principal;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import vex.jni.Amount;
import vex.jni.Run;
import vex.jni.TAVClientJNI;

/**
 * Certificates with hostile names and friendly names (tests/support/HostileNames.cpp), as Java gets them: the natives'
 * list read with the JDK's own parser of names, filters, CertificateInfo and the aliases of a KeyStore. VEX_TEST_NAMES
 * is the number of certificates.
 */
@Tag("names")
class HostileNamesTest {
    private static final int COUNT = Amount.of("VEX_TEST_NAMES", 60);
    private static final int BATCH = 60;
    private static final TAVClientJNI NATIVES = new TAVClientJNI();
    /** OpenSSL has names of types with "_" and blanks, such as ct_precert_signer. */
    private static final Pattern ODD_TYPE = Pattern.compile("(?:^|[,+])(?![0-9])[A-Za-z0-9-]*[^A-Za-z0-9=-][^=,+]*=");
    // The logger of the keys that Java cannot read would say so thousands of times.
    private static final Logger LOGGER = Logger.getLogger(SigningKeyStore.class.getName());

    private final Map<String, Integer> counts = new TreeMap<>();

    @TempDir
    private Path directory;

    /** An attribute: its DER, and its text if it is well-formed. */
    private record Value(String der, String text) {}

    /** The relative names have the order of the list. */
    private record Certificate(boolean signs, String friendlyName, List<List<Value>> subject,
                               List<List<Value>> issuer) {}

    @Test
    void stayInTheirFieldsAndFindTheirCertificates() throws Exception {
        LOGGER.setLevel(Level.OFF);
        for (int left = COUNT; left > 0; left -= BATCH) {
            long seed = Amount.seedOfRun() + left;
            ProcessBuilder generator = new ProcessBuilder(System.getProperty("vex.test.hostile-names"),
                Long.toString(seed), Integer.toString(Math.min(left, BATCH)), directory.toString());
            generator.environment().keySet().removeAll(Set.of("VEX_TEST_LOG_DIR", "LD_PRELOAD"));
            Run.of(generator).succeeded();
            try {
                Map<String, Certificate> known = read();
                checkNatives(known);
                checkClient(known);
                checkKeyStore(known);
            } catch (Exception | AssertionError e) {
                throw new AssertionError("seed " + seed, e);
            }
        }
        counts.forEach((what, count) -> System.err.printf("%s: %d%n", what, count));
    }

    private void count(String what) {
        counts.merge(what, 1, Integer::sum);
    }

    private static String text(String hex) {
        return hex.equals("-") ? "" : hex.equals("?") ? null
            : new String(HexFormat.of().parseHex(hex), StandardCharsets.UTF_8);
    }

    private static List<List<Value>> name(String list) {
        List<List<Value>> relativeNames = new ArrayList<>();
        for (String relative : list.equals("-") ? new String[0] : list.split(",")) {
            List<Value> values = new ArrayList<>();
            for (String attribute : relative.split("\\+")) {
                String[] parts = attribute.split(":");
                values.add(new Value(parts[1], text(parts[2])));
            }
            relativeNames.add(values);
        }
        return relativeNames;
    }

    /** By serial number. */
    private Map<String, Certificate> read() throws Exception {
        Map<String, Certificate> known = new HashMap<>();
        for (String line : Files.readAllLines(directory.resolve("certificates.txt"))) {
            String[] fields = line.split(" ");
            known.put(fields[0], new Certificate(fields[1].equals("readable") && fields[2].equals("valid"),
                text(fields[3]), name(fields[4]), name(fields[5])));
        }
        return known;
    }

    private static Set<String> signing(Map<String, Certificate> known) {
        Set<String> signing = new HashSet<>();
        known.forEach((serial, certificate) -> {
            if (certificate.signs()) {
                signing.add(serial);
            }
        });
        return signing;
    }

    private static List<String> records(long handle) {
        String list = NATIVES.GetCertList(handle);
        assertNotNull(list);
        return list.isEmpty() ? List.of() : Arrays.asList(list.split("\r\n", -1));
    }

    private void checkNatives(Map<String, Certificate> known) throws Exception {
        long handle = NATIVES.Initialize("", "file:" + directory.resolve("keys.pem"));
        assertNotEquals(0, handle);
        List<String> records = records(handle);
        Set<String> serials = new HashSet<>();
        for (String record : records) {
            String[] fields = record.split(" ", -1);
            assertEquals(7, fields.length, record);
            assertTrue(record.chars().noneMatch(c -> c < ' ' || c == 0x7f || c == 0xfffd && !isInNames(known, fields)),
                record);
            Certificate certificate = known.get(fields[0]);
            assertName(certificate.subject(), fields[5]);
            assertName(certificate.issuer(), fields[6]);
            serials.add(fields[0]);
            checkFilters(handle, record, fields);
        }
        assertEquals(signing(known), serials);
        assertEquals(0, NATIVES.Finalize(handle));
    }

    /** Whether U+FFFD, which stands for malformed bytes, is a character of the certificate's own. */
    private static boolean isInNames(Map<String, Certificate> known, String[] fields) {
        Certificate certificate = known.get(fields[0]);
        List<List<Value>> both = new ArrayList<>(certificate.subject());
        both.addAll(certificate.issuer());
        return both.stream().flatMap(List::stream).anyMatch(v -> v.text() != null && v.text().indexOf(0xfffd) >= 0);
    }

    /** The values, by the JDK's parser of RFC 2253, are those of the certificate. */
    private void assertName(List<List<Value>> expected, String text) throws Exception {
        LdapName parsed;
        try {
            parsed = new LdapName(text);
        } catch (InvalidNameException e) {
            assertTrue(ODD_TYPE.matcher(text).find(), () -> e + " in " + text);
            count("names with one of OpenSSL's types that are no keywords of RFC 2253");
            return;
        }
        assertEquals(expected.size(), parsed.size(), text);
        for (int i = 0; i < parsed.size(); ++i) {
            // The last relative name of the text comes first.
            Rdn relative = parsed.getRdn(parsed.size() - 1 - i);
            assertEquals(expected.get(i).size(), relative.size(), text);
            NamingEnumeration<? extends Attribute> attributes = relative.toAttributes().getAll();
            while (attributes.hasMore()) {
                NamingEnumeration<?> values = attributes.next().getAll();
                while (values.hasMore()) {
                    Object value = values.next();
                    assertTrue(isAmong(expected.get(i), value), () -> value + " in " + text);
                    count("values of names that the JDK's parser reads");
                }
            }
        }
    }

    private static boolean isAmong(List<Value> expected, Object found) {
        if (found instanceof byte[]) {
            String der = HexFormat.of().formatHex((byte[]) found);
            return expected.stream().anyMatch(value -> value.der().equals(der));
        }
        String text = trim((String) found);
        return expected.stream().anyMatch(value -> value.text() == null || trim(value.text()).equals(text));
    }

    /** The JDK's parser drops blanks at the ends, also escaped ones. names_test compares them. */
    private static String trim(String text) {
        return text.replaceAll("^[ \r\n]+|[ \r\n]+$", "");
    }

    private void checkFilters(long handle, String record, String[] fields) {
        Map<Long, String> filters = Map.of(TAVClientJNI.FILTER_SUBJECT_NAME, fields[5],
            TAVClientJNI.FILTER_ISSUER_NAME, fields[6], TAVClientJNI.FILTER_SUBJECT, fields[5],
            TAVClientJNI.FILTER_ISSUER, fields[6]);
        filters.forEach((type, value) -> {
            if (!value.isEmpty()) {
                assertEquals(0, NATIVES.AddFilter(handle, type, value), value);
                assertTrue(records(handle).contains(record), () -> "filter " + type + " does not find " + value);
                assertEquals(0, NATIVES.ClearFilter(handle));
                count("names given as filters to the natives");
            }
        });
    }

    private void checkClient(Map<String, Certificate> known) throws Exception {
        Path file = directory.resolve("keys.pem");
        try (SigningClient client = SigningClient.file(file).open()) {
            assertEquals(signing(known).size(), client.certificates().size());
            for (CertificateInfo info : client.certificates()) {
                assertTrue(info.subjectText().chars().noneMatch(c -> c < ' '), info.subjectText());
                assertTrue(info.toString().lines().count() == 1, info::toString);
                for (Naming naming : List.<Naming>of(info::subject, info::issuer)) {
                    try {
                        naming.name();
                        count("names that Java reads as X500Principal");
                    } catch (IllegalStateException e) {
                        count("names that Java does not read as X500Principal, which the method says");
                    }
                }
                X500Principal subject = subject(info);
                if (subject != null && !info.subjectText().isEmpty()) {
                    try (SigningClient one = SigningClient.file(file).subject(subject).open()) {
                        assertTrue(one.certificates().contains(info), info::subjectText);
                        count("X500Principals given as filters");
                    }
                }
            }
        }
    }

    private interface Naming {
        X500Principal name();
    }

    /** Null if Java cannot read the certificate, as it says. */
    private X500Principal subject(CertificateInfo info) {
        try {
            return info.certificate().getSubjectX500Principal();
        } catch (SigningException e) {
            assertEquals(SigningException.Reason.NOT_SUPPORTED, e.reason());
            count("certificates that Java does not read");
            return null;
        }
    }

    private void checkKeyStore(Map<String, Certificate> known) throws Exception {
        KeyStore store = KeyStore.getInstance(SigningProvider.KEY_STORE_TYPE, new SigningProvider());
        store.load(StoreParameter.file(directory.resolve("keys.p12"), (KeyStore.ProtectionParameter) null));
        Set<String> serials = new HashSet<>();
        for (String alias : Collections.list(store.aliases())) {
            X509Certificate certificate = (X509Certificate) store.getCertificate(alias);
            String serial = String.format("%08X", certificate.getSerialNumber());
            assertTrue(serials.add(serial), serial);
            assertEquals(alias, store.getCertificateAlias(certificate));
            assertNotNull(store.getKey(alias, null));
            assertTrue(alias.codePoints().noneMatch(c -> Character.isISOControl(c)
                || Character.getType(c) == Character.FORMAT || Character.getType(c) == Character.SURROGATE), alias);
            // Of random bytes, nobody knows whether they are a name.
            String friendlyName = known.get(serial).friendlyName();
            boolean named = friendlyName == null || alias.equals(friendlyName);
            assertTrue(named || alias.matches("[0-9A-F]{64}"), alias);
            count(named ? "aliases that are friendly names" : "aliases that are fingerprints");
        }
        assertTrue(signing(known).containsAll(serials));
    }
}
