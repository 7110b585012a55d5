package vex.client;

import java.io.ByteArrayOutputStream;
import java.math.BigInteger;
import java.nio.charset.StandardCharsets;
import java.security.cert.CertificateException;
import java.security.cert.X509Certificate;
import java.time.Instant;
import java.time.format.DateTimeFormatter;
import java.time.format.DateTimeFormatterBuilder;
import java.time.format.DateTimeParseException;
import java.time.format.SignStyle;
import java.time.temporal.ChronoField;
import java.util.ArrayList;
import java.util.Collections;
import java.util.HashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import javax.security.auth.x500.X500Principal;
import vex.jni.VCTKError;

/** Describes a certificate that could sign. Immutable; any thread may use it. */
public final class CertificateInfo {
    private static final int FIELDS = 7;
    /** Of a record that ends with the name in the store, and the certificate and its chain. */
    private static final int LONG_FIELDS = FIELDS + 2;
    private static final Map<String, String> KEYWORDS = keywords();
    /** ISO 8601. Unlike Instant.parse, it reads years before 1000 without leading zeros. */
    private static final DateTimeFormatter TIME = new DateTimeFormatterBuilder()
        .appendValue(ChronoField.YEAR, 1, 4, SignStyle.NEVER)
        .appendPattern("-MM-dd'T'HH:mm:ssX")
        .toFormatter(Locale.ROOT);

    private final BigInteger serial;
    private final String fingerprint;
    private final Instant notBefore;
    private final Instant notAfter;
    private final String keyAlgorithm;
    private final String subject;
    private final String issuer;
    private final String name;  // percent-encoded; null: not listed
    private final String chain;  // null: not listed

    private CertificateInfo(String[] fields) {
        serial = new BigInteger(fields[0], 16);
        fingerprint = Certificates.normalized(fields[1]);
        notBefore = TIME.parse(fields[2], Instant::from);
        notAfter = TIME.parse(fields[3], Instant::from);
        keyAlgorithm = fields[4];
        subject = fields[5];
        issuer = fields[6];
        boolean withChain = fields.length > FIELDS;
        name = withChain ? decode(fields[FIELDS]) : null;
        chain = withChain ? fields[FIELDS + 1] : null;
    }

    static List<CertificateInfo> parseList(String list) throws SigningException {
        List<CertificateInfo> certificates = new ArrayList<>();
        if (!list.isEmpty()) {
            for (String record : list.split("\r\n", -1)) {
                certificates.add(parse(record));
            }
        }
        return Collections.unmodifiableList(certificates);
    }

    private static CertificateInfo parse(String record) throws SigningException {
        String[] fields = record.split(" ", -1);
        if (fields.length == FIELDS || fields.length == LONG_FIELDS) {
            try {
                return new CertificateInfo(fields);
            } catch (NumberFormatException | DateTimeParseException e) {
                // The record has an unknown form, like one with too few fields.
            }
        }
        throw SigningException.of(VCTKError.INTERNAL,
            "the toolkit's certificate list has an unknown record: " + record);
    }

    /**
     * Returns the serial number.
     *
     * @return the number; a few certificates have a negative one
     */
    public BigInteger serial() {
        return serial;
    }

    /**
     * Returns the certificate's fingerprint.
     *
     * @return in the form that the {@linkplain vex.client package} describes
     */
    public String fingerprint() {
        return fingerprint;
    }

    /**
     * Returns the first second in which the certificate is valid.
     *
     * @return in whole seconds
     */
    public Instant notBefore() {
        return notBefore;
    }

    /**
     * Returns the last second in which the certificate is valid.
     *
     * @return in whole seconds
     */
    public Instant notAfter() {
        return notAfter;
    }

    /**
     * Returns the key's algorithm.
     *
     * @return {@link KeyAlgorithm#OTHER} if this class does not know the toolkit's name
     */
    public KeyAlgorithm keyAlgorithm() {
        return KeyAlgorithm.of(keyAlgorithm);
    }

    /**
     * Returns the toolkit's name of the key's algorithm, which may be one that {@link KeyAlgorithm} does not have.
     *
     * @return for example {@code RSA-PSS}
     */
    public String keyAlgorithmName() {
        return keyAlgorithm;
    }

    /**
     * Returns the subject's name.
     *
     * @return equal to {@link java.security.cert.X509Certificate#getSubjectX500Principal} of the certificate if
     *     Java has names for all its attribute types. If not, it may differ: a value's string type is not known here
     * @throws IllegalStateException if Java cannot read the name; {@link #subjectText} returns it nevertheless
     */
    public X500Principal subject() {
        return toPrincipal(subject);
    }

    /**
     * Returns the subject's name as text.
     *
     * @return RFC 4514 text
     */
    public String subjectText() {
        return toText(subject);
    }

    /**
     * Returns the issuer's name.
     *
     * @return equal to {@link java.security.cert.X509Certificate#getIssuerX500Principal} of the certificate if
     *     Java has names for all its attribute types. If not, it may differ: a value's string type is not known here
     * @throws IllegalStateException if Java cannot read the name; {@link #issuerText} returns it nevertheless
     */
    public X500Principal issuer() {
        return toPrincipal(issuer);
    }

    /**
     * Returns the issuer's name as text.
     *
     * @return RFC 4514 text
     */
    public String issuerText() {
        return toText(issuer);
    }

    /**
     * Returns the certificate itself.
     *
     * @return a new object for each call
     * @throws SigningException if the toolkit does not list certificates ({@link SigningClient#signer} works
     *     nevertheless), or if Java cannot read this one
     */
    public X509Certificate certificate() throws SigningException {
        if (chain == null) {
            throw SigningException.notSupported("The toolkit lists no certificates; SigningClient.signer() gets one");
        }
        try {
            return Certificates.listed(chain, fingerprint)[0];
        } catch (CertificateException e) {
            throw SigningException.notSupported(e.getMessage(), e);
        }
    }

    /** What the store calls the certificate or its key: empty if it has no name, null if the list does not tell. */
    String name() {
        return name;
    }

    /** The certificate and its chain, as Base64 separated by commas; null if the list does not have them. */
    String chain() {
        return chain;
    }

    /** Two objects are equal if their fingerprints are equal. */
    @Override
    public boolean equals(Object other) {
        return other instanceof CertificateInfo && fingerprint.equals(((CertificateInfo) other).fingerprint);
    }

    @Override
    public int hashCode() {
        return fingerprint.hashCode();
    }

    /** For people; the form may change. */
    @Override
    public String toString() {
        return keyAlgorithm + " certificate of " + subjectText() + ", serial number " + serial.toString(16)
            + ", valid from " + notBefore + " to " + notAfter + ", SHA-256 " + fingerprint;
    }

    /** Percent-encoded UTF-8. */
    private static String decode(String encoded) {
        ByteArrayOutputStream bytes = new ByteArrayOutputStream(encoded.length());
        for (int i = 0; i < encoded.length(); ++i) {
            char c = encoded.charAt(i);
            if (c == '%' && i + 2 < encoded.length()) {
                bytes.write(Integer.parseInt(encoded.substring(i + 1, i + 3), 16));
                i += 2;
            } else {
                bytes.write(c);
            }
        }
        return new String(bytes.toByteArray(), StandardCharsets.UTF_8);
    }

    private static X500Principal toPrincipal(String name) {
        try {
            return new X500Principal(name, KEYWORDS);
        } catch (IllegalArgumentException e) {
            throw new IllegalStateException("Java cannot read the name " + name + "; use its text instead", e);
        }
    }

    /**
     * Removes escapes that are not needed. The list writes each blank as "\20". Only blanks at the ends of a value need
     * an escape.
     */
    static String toText(String name) {
        StringBuilder text = new StringBuilder();
        boolean begin = false;
        for (int i = 0; i < name.length(); ++i) {
            char c = name.charAt(i);
            if (name.startsWith("\\20", i)) {
                i += 2;
                boolean end = i + 1 == name.length() || name.charAt(i + 1) == ',' || name.charAt(i + 1) == '+';
                text.append(begin || end ? "\\ " : " ");
                begin = false;
            } else if (c == '\\' && i + 1 < name.length()) {
                // Copy both characters: the second backslash of "\\20" does not start another escape.
                text.append(name, i, i + 2);
                ++i;
                begin = false;
            } else {
                text.append(c);
                begin = c == '=';
            }
        }
        return text.toString();
    }

    /** The toolkit's names of attribute types that Java has no names for, and their OIDs. */
    private static Map<String, String> keywords() {
        String[][] types = {
            {"SN", "2.5.4.4"},
            {"SERIALNUMBER", "2.5.4.5"},
            {"STREET", "2.5.4.9"},
            {"TITLE", "2.5.4.12"},
            {"DESCRIPTION", "2.5.4.13"},
            {"BUSINESSCATEGORY", "2.5.4.15"},
            {"POSTALADDRESS", "2.5.4.16"},
            {"POSTALCODE", "2.5.4.17"},
            {"POSTOFFICEBOX", "2.5.4.18"},
            {"TELEPHONENUMBER", "2.5.4.20"},
            {"NAME", "2.5.4.41"},
            {"GN", "2.5.4.42"},
            {"INITIALS", "2.5.4.43"},
            {"GENERATIONQUALIFIER", "2.5.4.44"},
            {"X500UNIQUEIDENTIFIER", "2.5.4.45"},
            {"DNQUALIFIER", "2.5.4.46"},
            {"PSEUDONYM", "2.5.4.65"},
            {"ROLE", "2.5.4.72"},
            {"ORGANIZATIONIDENTIFIER", "2.5.4.97"},
            {"C3", "2.5.4.98"},
            {"N3", "2.5.4.99"},
            {"UID", "0.9.2342.19200300.100.1.1"},
            {"MAIL", "0.9.2342.19200300.100.1.3"},
            {"EMAILADDRESS", "1.2.840.113549.1.9.1"},
            {"UNSTRUCTUREDNAME", "1.2.840.113549.1.9.2"},
            {"UNSTRUCTUREDADDRESS", "1.2.840.113549.1.9.8"},
            {"JURISDICTIONL", "1.3.6.1.4.1.311.60.2.1.1"},
            {"JURISDICTIONST", "1.3.6.1.4.1.311.60.2.1.2"},
            {"JURISDICTIONC", "1.3.6.1.4.1.311.60.2.1.3"},
        };
        Map<String, String> keywords = new HashMap<>();
        for (String[] type : types) {
            keywords.put(type[0], type[1]);
        }
        return Collections.unmodifiableMap(keywords);
    }
}
