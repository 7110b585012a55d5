package vex.interop;

/** A program or a library of others that signs with a key of java.security. */
interface Program {
    /**
     * Signs, and has the signature verified by software that trusts only the root.
     *
     * @throws Exception with the reason if the program or a verifier refuses
     */
    void sign(Signer signer) throws Exception;
}
