package vex.interop;

/** The kinds of keys and certificates that programs have to be told apart. */
enum KeyKind {
    RSA("RSA", "RSA", "SHA256withRSA"),
    EC("EC", "secp256r1", "SHA256withECDSA"),
    /** An RSA key whose certificate allows RSASSA-PSS only (id-RSASSA-PSS). */
    PSS("PSS certificate", "RSASSA-PSS", "SHA256withRSAandMGF1"),
    ED25519("Ed25519", "Ed25519", "Ed25519");

    private final String title;
    private final String keyName;
    private final String signatureName;

    KeyKind(String title, String keyName, String signatureName) {
        this.title = title;
        this.keyName = keyName;
        this.signatureName = signatureName;
    }

    /** The name of the kind's column in the page. */
    @Override
    public String toString() {
        return title;
    }

    /** As {@link vex.jni.TestStore#chain} takes it. */
    String keyName() {
        return keyName;
    }

    /** The signature algorithm that Bouncy Castle knows by this name. */
    String signatureName() {
        return signatureName;
    }
}
