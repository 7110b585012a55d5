package vex.jni;

import java.util.ArrayList;
import java.util.List;

/**
 * How a key signs.
 *
 * @param key as {@link TestStore#identity} takes it
 * @param digest an Ed25519 or Ed448 key ignores it
 * @param pss whether an RSA key signs with RSASSA-PSS
 */
record Scheme(String key, DigestName digest, boolean pss) {
    static final List<String> KEYS = List.of("RSA-2048", "RSA-3072", "RSA-4096", "RSASSA-PSS", "secp256r1", "secp384r1",
        "secp521r1", "Ed25519", "Ed448");

    /**
     * The names of a digest algorithm.
     *
     * @param name in the toolkit, and of the JDK's digest
     * @param inSignatures in the JDK's names of signature algorithms
     */
    record DigestName(String name, String inSignatures, String openSsl, String oid) {}

    static final List<DigestName> DIGESTS = List.of(
        new DigestName("SHA-224", "SHA224", "sha224", "2.16.840.1.101.3.4.2.4"),
        new DigestName("SHA-256", "SHA256", "sha256", "2.16.840.1.101.3.4.2.1"),
        new DigestName("SHA-384", "SHA384", "sha384", "2.16.840.1.101.3.4.2.2"),
        new DigestName("SHA-512", "SHA512", "sha512", "2.16.840.1.101.3.4.2.3"),
        new DigestName("SHA-512/224", "SHA512/224", "sha512-224", "2.16.840.1.101.3.4.2.5"),
        new DigestName("SHA-512/256", "SHA512/256", "sha512-256", "2.16.840.1.101.3.4.2.6"),
        new DigestName("SHA3-224", "SHA3-224", "sha3-224", "2.16.840.1.101.3.4.2.7"),
        new DigestName("SHA3-256", "SHA3-256", "sha3-256", "2.16.840.1.101.3.4.2.8"),
        new DigestName("SHA3-384", "SHA3-384", "sha3-384", "2.16.840.1.101.3.4.2.9"),
        new DigestName("SHA3-512", "SHA3-512", "sha3-512", "2.16.840.1.101.3.4.2.10"));

    /** Each key with each digest, and RSA keys in both ways. */
    static List<Scheme> all() {
        List<Scheme> all = new ArrayList<>();
        for (String key : KEYS) {
            for (DigestName digest : DIGESTS) {
                if (!key.equals("RSASSA-PSS")) {
                    all.add(new Scheme(key, digest, false));
                }
                if (key.startsWith("RSA")) {
                    all.add(new Scheme(key, digest, true));
                }
            }
        }
        return all;
    }

    boolean isRsa() {
        return key.startsWith("RSA");
    }

    boolean isEdwards() {
        return key.startsWith("Ed");
    }

    /** The object identifier of the digest in a P7. */
    String p7DigestOid() {
        return isEdwards() ? "2.16.840.1.101.3.4.2.3" : digest.oid();
    }

    /** The toolkit's name of the digest, which says how the key signs. */
    String toolkitName() {
        return digest.name() + (pss && !key.equals("RSASSA-PSS") ? "/PSS" : "");
    }

    @Override
    public String toString() {
        return key + (isEdwards() ? "" : " with " + digest.name() + (pss ? "/PSS" : ""));
    }
}
