package vex.client;

import java.security.MessageDigest;
import java.security.NoSuchAlgorithmException;
import java.util.Locale;

/** A digest algorithm (FIPS 180-4, FIPS 202). The usual ones come first. */
public enum Digest {
    /** The default. */
    SHA_256("SHA-256", 32, 1),
    /** 48 bytes. */
    SHA_384("SHA-384", 48, 2),
    /** 64 bytes. */
    SHA_512("SHA-512", 64, 3),
    /** 28 bytes. */
    SHA_224("SHA-224", 28, 4),
    /** SHA-512 with another start, cut to 28 bytes. */
    SHA_512_224("SHA-512/224", 28, 5),
    /** SHA-512 with another start, cut to 32 bytes. */
    SHA_512_256("SHA-512/256", 32, 6),
    /** 28 bytes. */
    SHA3_224("SHA3-224", 28, 7),
    /** 32 bytes. */
    SHA3_256("SHA3-256", 32, 8),
    /** 48 bytes. */
    SHA3_384("SHA3-384", 48, 9),
    /** 64 bytes. */
    SHA3_512("SHA3-512", 64, 10);

    /** Behind the name of a digest: RSASSA-PSS with it. */
    static final String PSS = "/PSS";
    /** Before the name of a digest: the data to sign is the digest itself. */
    static final String PREHASHED = "prehashed:";
    /** The bytes given are signed as they are. */
    static final String RAW = PREHASHED + "NONE";

    private static final String OIDS = "2.16.840.1.101.3.4.2.";

    private final String text;
    private final int bytes;
    private final int lastArc;

    Digest(String text, int bytes, int lastArc) {
        this.text = text;
        this.bytes = bytes;
        this.lastArc = lastArc;
    }

    /** Null: the name is unknown. Reads the toolkit's and Java's ways to spell a name. */
    static Digest of(String name) {
        String wanted = plain(name);
        for (Digest digest : values()) {
            // Java also has SHA2-256 for SHA-256.
            if (wanted.equals(plain(digest.text)) || wanted.equals(plain(digest.text.replace("SHA-", "SHA2-")))) {
                return digest;
            }
        }
        return null;
    }

    /** Null: another algorithm. */
    static Digest ofOid(String oid) {
        for (Digest digest : values()) {
            if (oid.equals(OIDS + digest.lastArc)) {
                return digest;
            }
        }
        return null;
    }

    /** Returns the toolkit's name of the digest that signs: the default if none is given. */
    static String orDefault(String name) {
        return name == null ? SHA_256.text : name;
    }

    /** Whether RSA keys sign with RSASSA-PSS under this name of the toolkit. */
    static boolean isPss(String name) {
        return name.regionMatches(true, name.length() - PSS.length(), PSS, 0, PSS.length());
    }

    static String withoutPss(String name) {
        return isPss(name) ? name.substring(0, name.length() - PSS.length()) : name;
    }

    private static String plain(String name) {
        return name.toUpperCase(Locale.ROOT).replace("-", "").replace("/", "");
    }

    /** Returns the name as {@link MessageDigest} spells it, for example {@code SHA-256}. */
    @Override
    public String toString() {
        return text;
    }

    /** As names of signature algorithms spell it: {@code SHA256}. */
    String inSignatures() {
        return text.replace("SHA-", "SHA");
    }

    int length() {
        return bytes;
    }

    /** Null: this Java does not have the algorithm. */
    MessageDigest newMessageDigest() {
        try {
            return MessageDigest.getInstance(text);
        } catch (NoSuchAlgorithmException e) {
            return null;
        }
    }
}
