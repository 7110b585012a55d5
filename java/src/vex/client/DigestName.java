package vex.client;

import java.security.MessageDigest;
import java.security.NoSuchAlgorithmException;
import java.util.Locale;

/** A digest algorithm of the toolkit, and what it is called. The usual ones come first. */
enum DigestName {
    SHA_256("SHA-256", 32),
    SHA_384("SHA-384", 48),
    SHA_512("SHA-512", 64),
    SHA_224("SHA-224", 28),
    SHA_512_224("SHA-512/224", 28),
    SHA_512_256("SHA-512/256", 32),
    SHA3_224("SHA3-224", 28),
    SHA3_256("SHA3-256", 32),
    SHA3_384("SHA3-384", 48),
    SHA3_512("SHA3-512", 64);

    /** Behind the name of a digest: RSASSA-PSS with it. */
    static final String PSS = "/PSS";
    /** Before the name of a digest: the data to sign is the digest itself. */
    static final String PREHASHED = "prehashed:";
    /** The bytes given are signed as they are. */
    static final String RAW = PREHASHED + "NONE";

    private final String text;
    private final int bytes;

    DigestName(String text, int bytes) {
        this.text = text;
        this.bytes = bytes;
    }

    /** Null: the name is unknown. Reads the toolkit's and Java's ways to spell a name. */
    static DigestName of(String name) {
        String wanted = plain(name).replaceFirst("^SHA2(?=(224|256|384|512))", "SHA");
        for (DigestName digest : values()) {
            if (plain(digest.text).equals(wanted)) {
                return digest;
            }
        }
        return null;
    }

    private static String plain(String name) {
        return name.toUpperCase(Locale.ROOT).replaceAll("[-/]", "");
    }

    /** As the toolkit and {@link MessageDigest} spell it: {@code SHA-256}. */
    String text() {
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
