package vex.client;

/** The algorithm of a certificate's key. */
public enum KeyAlgorithm {
    /** An RSA key that the certificate does not restrict to RSASSA-PSS. */
    RSA("RSA"),
    /** An RSA key for RSASSA-PSS only. */
    RSA_PSS("RSA-PSS"),
    /** A key on an elliptic curve, which signs with ECDSA. */
    EC("EC"),
    /** A key for Ed25519. */
    ED25519("ED25519"),
    /** A key for Ed448. */
    ED448("ED448"),
    /** Another algorithm: {@link CertificateInfo#keyAlgorithmName} tells its name. It cannot be used as a filter. */
    OTHER("other");

    private final String text;

    KeyAlgorithm(String text) {
        this.text = text;
    }

    /** {@link #OTHER} if the name is unknown. */
    static KeyAlgorithm of(String name) {
        for (KeyAlgorithm algorithm : values()) {
            if (algorithm.text.equals(name)) {
                return algorithm;
            }
        }
        return OTHER;
    }

    /** Whether the key is for Ed25519 or Ed448, which sign data and no digest. */
    boolean isEdwards() {
        return this == ED25519 || this == ED448;
    }

    /** Returns the toolkit's name, for example {@code RSA-PSS}. */
    @Override
    public String toString() {
        return text;
    }
}
