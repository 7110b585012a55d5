package vex.client;

/** An option of a CMS signature. Without options, a signature contains the content and no certificate. */
public enum CmsOption {
    /** The signature does not contain the content. Verifying needs both. */
    DETACHED,

    /** The signature contains the signer's certificate. Without this option, verifying needs the certificate too. */
    INCLUDE_CERTIFICATE
}
