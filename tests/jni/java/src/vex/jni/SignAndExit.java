package vex.jni;

/** A program that signs with stores, calls the natives that query, and ends. Without arguments it only ends. */
final class SignAndExit {
    private SignAndExit() {}

    /**
     * Ends with an exception if a call fails.
     *
     * @param args the URIs of stores, which it uses one after the other
     */
    public static void main(String[] args) {
        for (String store : args) {
            TAVClientJNI natives = new TAVClientJNI();
            long handle = natives.Initialize(null, store);
            if (handle == 0
                || natives.SetDigestAlg(handle, "SHA-384") != 0
                || natives.GetCertList(handle) == null
                || natives.P1SignString(handle, "a text to sign") == null
                || natives.P7SignString(handle, "a text to sign", 0, 1) == null
                || natives.P1Sign(handle, "no Base64!") != null
                || natives.GetLastErrorMessage(handle) == null
                || natives.Finalize(handle) != 0) {
                throw new IllegalStateException("refused: " + natives.GetLastError(handle));
            }
        }
    }
}
