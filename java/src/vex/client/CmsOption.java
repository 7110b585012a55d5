package vex.client;

/** What a CMS signature is to be like; without any option it contains the content and no certificate. */
public enum CmsOption {
    /** The signature does not contain the content; whoever verifies needs the content as well. */
    DETACHED,

    /** The signature contains the signer's certificate; without it, whoever verifies has to have it already. */
    INCLUDE_CERTIFICATE
}
