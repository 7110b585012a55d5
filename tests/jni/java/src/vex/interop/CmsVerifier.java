package vex.interop;

/** Verifies a CMS signature as somebody who trusts only the root. */
interface CmsVerifier {
    /**
     * @param data null for an attached signature
     * @throws Exception or an AssertionError if the signature is bad or cannot be verified
     */
    void verify(Signer signer, byte[] signature, byte[] data) throws Exception;
}
