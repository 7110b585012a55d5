package vex.client;

import java.math.BigInteger;
import java.nio.charset.StandardCharsets;
import java.time.Instant;
import java.time.temporal.ChronoUnit;
import java.util.Objects;
import javax.security.auth.x500.X500Principal;
import vex.jni.TAVClientJNI;

/** A condition that a certificate has to meet: the toolkit's number of its kind, and the value as it reads it. */
final class Filter {
    // Toolkits that do not know these refuse them.
    private static final long KEY_USAGES = 7;
    private static final long EXTENDED_KEY_USAGES = 8;
    private static final long VALID_AT = 9;
    private static final long POLICY = 10;
    private static final long KEY_SIZE = 11;
    private static final long SUBJECT_NAME = 12;
    private static final long ISSUER_NAME = 13;

    private final long type;
    private final String name;
    private final String value;

    private Filter(long type, String name, String value) {
        this.type = type;
        this.name = name;
        this.value = Objects.requireNonNull(value, name);
    }

    static Filter issuerContains(String part) {
        return new Filter(TAVClientJNI.FILTER_ISSUER, "issuer contains", part);
    }

    static Filter subjectContains(String part) {
        return new Filter(TAVClientJNI.FILTER_SUBJECT, "subject contains", part);
    }

    static Filter serial(BigInteger serial) {
        if (serial.signum() < 0) {
            throw new IllegalArgumentException("A serial number is not negative: " + serial);
        }
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
        return new Filter(KEY_USAGES, "key usages", join((Object[]) usages));
    }

    static Filter extendedKeyUsages(String... usages) {
        return new Filter(EXTENDED_KEY_USAGES, "extended key usages", join((Object[]) usages));
    }

    static Filter validAt(Instant time) {
        return new Filter(VALID_AT, "valid at", time.truncatedTo(ChronoUnit.SECONDS).toString());
    }

    static Filter policy(String oid) {
        return new Filter(POLICY, "policy", oid);
    }

    static Filter keySizeAtLeast(int bits) {
        if (bits <= 0) {
            throw new IllegalArgumentException("A key has at least one bit, not " + bits);
        }
        return new Filter(KEY_SIZE, "key size at least", Integer.toString(bits));
    }

    static Filter subject(X500Principal subject) {
        return new Filter(SUBJECT_NAME, "subject", toAsciiName(subject));
    }

    static Filter issuer(X500Principal issuer) {
        return new Filter(ISSUER_NAME, "issuer", toAsciiName(issuer));
    }

    /** The toolkit's number for this kind of filter. */
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

    private static String join(Object... names) {
        if (names.length == 0) {
            throw new IllegalArgumentException("At least one usage has to be named");
        }
        StringBuilder list = new StringBuilder();
        for (Object name : names) {
            list.append(list.length() == 0 ? "" : ",").append(Objects.requireNonNull(name, "usage"));
        }
        return list.toString();
    }

    /** RFC 4514 text with everything else than ASCII as hexadecimal pairs, so that every locale can encode it. */
    private static String toAsciiName(X500Principal name) {
        StringBuilder ascii = new StringBuilder();
        for (byte b : name.getName(X500Principal.RFC2253).getBytes(StandardCharsets.UTF_8)) {
            if (b >= 0) {
                ascii.append((char) b);
            } else {
                ascii.append(String.format("\\%02X", b & 0xff));
            }
        }
        return ascii.toString();
    }
}
