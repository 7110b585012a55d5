package vex.client;

/** An option of a CMS signature. Without options, a signature contains the signer's certificate and no other one. */
public enum CmsOption {
    /** The signature contains no certificate. Verifying needs the signer's from elsewhere. */
    OMIT_CERTIFICATE,

    /**
     * The signature contains the signer's certificate and those of its issuers, except a self-signed root unless the
     * store's URI has {@code chain=root}. If all of them are known, a verifier needs only the root. The issuers come
     * from the store and from {@link SigningClient.Builder#chainFile}. If the toolkit does not know chains, signing
     * fails.
     */
    INCLUDE_CHAIN
}
