package vex.client;

import java.math.BigInteger;
import java.time.Instant;
import java.time.temporal.ChronoUnit;
import java.util.ArrayDeque;
import java.util.Deque;
import java.util.Objects;
import javax.security.auth.x500.X500Principal;
import vex.jni.TAVClientJNI;

/** A condition on certificates, in the form that the toolkit reads: the number of its type, and a value. */
final class Filter {
    private final long type;
    private final String name;
    private final String value;

    private Filter(long type, String name, String value) {
        this.type = type;
        this.name = name;
        this.value = value;
    }

    static Filter issuerContains(String part) {
        return new Filter(TAVClientJNI.FILTER_ISSUER, "issuer contains", part);
    }

    static Filter subjectContains(String part) {
        return new Filter(TAVClientJNI.FILTER_SUBJECT, "subject contains", part);
    }

    static Filter serial(BigInteger serial) {
        return new Filter(TAVClientJNI.FILTER_SERIAL, "serial number", serial.toString(16));
    }

    static Filter fingerprint(String sha256) {
        return new Filter(TAVClientJNI.FILTER_FINGERPRINT, "fingerprint", sha256);
    }

    static Filter allowsKeyUsage(KeyUsage usage) {
        return new Filter(TAVClientJNI.FILTER_KEY_USAGE, "allows key usage", usage.toString());
    }

    static Filter keyAlgorithm(String algorithm) {
        return new Filter(TAVClientJNI.FILTER_KEY_ALGORITHM, "key algorithm", algorithm);
    }

    static Filter keyUsages(KeyUsage... usages) {
        return new Filter(TAVClientJNI.FILTER_KEY_USAGE_ALL, "key usages", join((Object[]) usages));
    }

    static Filter extendedKeyUsages(String... usages) {
        return new Filter(TAVClientJNI.FILTER_EXTENDED_KEY_USAGE, "extended key usages", join((Object[]) usages));
    }

    static Filter validAt(Instant time) {
        return new Filter(TAVClientJNI.FILTER_VALID_AT, "valid at", time.truncatedTo(ChronoUnit.SECONDS).toString());
    }

    static Filter policy(String oid) {
        return new Filter(TAVClientJNI.FILTER_POLICY, "policy", oid);
    }

    static Filter keySizeAtLeast(int bits) {
        if (bits <= 0) {
            throw new IllegalArgumentException("The key size in bits must be positive, not " + bits);
        }
        return new Filter(TAVClientJNI.FILTER_KEY_SIZE, "key size at least", Integer.toString(bits));
    }

    static Filter subject(X500Principal subject) {
        return new Filter(TAVClientJNI.FILTER_SUBJECT_NAME, "subject", toAsciiName(subject));
    }

    static Filter issuer(X500Principal issuer) {
        return new Filter(TAVClientJNI.FILTER_ISSUER_NAME, "issuer", toAsciiName(issuer));
    }

    /** One of the FILTER_ constants of {@link TAVClientJNI}. */
    long type() {
        return type;
    }

    /** For messages. */
    String name() {
        return name;
    }

    String value() {
        return value;
    }

    /** Two objects are equal if the same certificates pass them. */
    @Override
    public boolean equals(Object other) {
        return other instanceof Filter && type == ((Filter) other).type && value.equals(((Filter) other).value);
    }

    @Override
    public int hashCode() {
        return Objects.hash(type, value);
    }

    private static String join(Object... names) {
        if (names.length == 0) {
            throw new IllegalArgumentException("No usage is given; give at least one");
        }
        StringBuilder list = new StringBuilder();
        for (Object name : names) {
            list.append(list.length() == 0 ? "" : ",").append(name);
        }
        return list.toString();
    }

    /**
     * RFC 4514 text in ASCII, which every locale can encode. Types are OIDs, and values are their DER in hexadecimal:
     * the text that Java makes of a value is wrong if the value is a BMPString, a UniversalString or a T61String.
     */
    private static String toAsciiName(X500Principal name) {
        byte[] der = name.getEncoded();
        DerReader reader = new DerReader(der);
        // The text begins with the last relative name.
        Deque<String> relativeNames = new ArrayDeque<>();
        try {
            int end = reader.enter(DerReader.SEQUENCE);
            while (reader.position() < end) {
                int endOfSet = reader.enter(DerReader.SET);
                StringBuilder attributes = new StringBuilder();
                while (reader.position() < endOfSet) {
                    int endOfAttribute = reader.enter(DerReader.SEQUENCE);
                    attributes.append(attributes.length() == 0 ? "" : "+");
                    attributes.append(reader.objectIdentifier()).append("=#");
                    attributes.append(Hex.digits(der, reader.position(), endOfAttribute));
                    reader.skipTo(endOfAttribute);
                }
                relativeNames.addFirst(attributes.toString());
            }
        } catch (SigningException e) {
            throw new IllegalArgumentException("Java has an encoding of the name " + name + " that cannot be read", e);
        }
        return String.join(",", relativeNames);
    }
}
