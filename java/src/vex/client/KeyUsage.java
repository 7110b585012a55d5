package vex.client;

/** The key usages of a certificate, RFC 5280 section 4.2.1.3. */
public enum KeyUsage {
    /** For signatures other than those on certificates and revocation lists. */
    DIGITAL_SIGNATURE("digitalSignature"),
    /** For signatures that bind their signer, also called contentCommitment. */
    NON_REPUDIATION("nonRepudiation"),
    /** For the encryption of keys. */
    KEY_ENCIPHERMENT("keyEncipherment"),
    /** For the direct encryption of data. */
    DATA_ENCIPHERMENT("dataEncipherment"),
    /** For key agreement. */
    KEY_AGREEMENT("keyAgreement"),
    /** For signatures on certificates. */
    KEY_CERT_SIGN("keyCertSign"),
    /** For signatures on revocation lists. */
    CRL_SIGN("cRLSign"),
    /** With key agreement, for encryption only. */
    ENCIPHER_ONLY("encipherOnly"),
    /** With key agreement, for decryption only. */
    DECIPHER_ONLY("decipherOnly");

    private final String text;

    KeyUsage(String text) {
        this.text = text;
    }

    /** Returns the name in RFC 5280, for example {@code digitalSignature}. */
    @Override
    public String toString() {
        return text;
    }
}
