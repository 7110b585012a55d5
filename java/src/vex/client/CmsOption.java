package vex.client;

/** An option of a CMS signature. Without options, a signature contains the content and no certificate. */
public enum CmsOption {
    /** The signature does not contain the content. Verifying needs both. */
    DETACHED,

    /** The signature contains the signer's certificate. Without this option, verifying needs the certificate too. */
    INCLUDE_CERTIFICATE,

    /**
     * The signature contains the signer's certificate and those of its issuers, except a self-signed root unless the
     * store's URI has {@code chain=root}. If all of them are known, a verifier needs only the root. The issuers come
     * from the store and from {@link SigningClient.Builder#chainFile}. If the toolkit does not know chains, signing
     * fails.
     */
    INCLUDE_CHAIN
}
