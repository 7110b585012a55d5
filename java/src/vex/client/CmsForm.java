package vex.client;

/** What a CMS signature contains besides the signature itself. Immutable. */
final class CmsForm {
    /** What signatures are verified with. */
    enum Certificates { NONE, SIGNER, CHAIN }

    private final boolean detached;
    private final Certificates certificates;

    CmsForm(boolean detached, Certificates certificates) {
        this.detached = detached;
        this.certificates = certificates;
    }

    /** Without the content. */
    static CmsForm detached(CmsOption... options) {
        return new CmsForm(true, certificates(options));
    }

    /** With the content. */
    static CmsForm attached(CmsOption... options) {
        return new CmsForm(false, certificates(options));
    }

    private static Certificates certificates(CmsOption... options) {
        boolean omit = false;
        boolean chain = false;
        for (CmsOption option : Arguments.requireElements(options, "options")) {
            omit |= option == CmsOption.OMIT_CERTIFICATE;
            chain |= option == CmsOption.INCLUDE_CHAIN;
        }
        if (omit && chain) {
            throw new IllegalArgumentException("OMIT_CERTIFICATE and INCLUDE_CHAIN exclude each other");
        }
        return omit ? Certificates.NONE : chain ? Certificates.CHAIN : Certificates.SIGNER;
    }

    /** The same certificates, without the content. */
    CmsForm toDetached() {
        return new CmsForm(true, certificates);
    }

    boolean isDetached() {
        return detached;
    }

    Certificates certificates() {
        return certificates;
    }
}
