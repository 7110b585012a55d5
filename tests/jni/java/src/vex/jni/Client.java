package vex.jni;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;

/** A handle, and the natives that take it. Closing finalizes the handle and asserts success. */
final class Client implements AutoCloseable {
    static final TAVClientJNI NATIVES = new TAVClientJNI();

    static final String RSA = "RSA";
    static final String EC = "EC";

    private final long handle;

    private Client(String store) {
        handle = NATIVES.Initialize("", store);
        assertNotEquals(0, handle, () -> "Initialize failed with error " + NATIVES.GetLastError(0));
    }

    static Client open(String store) {
        return new Client(store);
    }

    /** Opens the demo store, with both certificates. */
    static Client openDemo() {
        return new Client("demo:");
    }

    /** Opens the demo store, with the certificate of this key algorithm. */
    static Client openDemo(String keyAlgorithm) {
        Client client = openDemo();
        client.addFilter(TAVClientJNI.FILTER_KEY_ALGORITHM, keyAlgorithm);
        return client;
    }

    @Override
    public void close() {
        assertEquals(0, NATIVES.Finalize(handle));
    }

    long handle() {
        return handle;
    }

    long lastError() {
        return NATIVES.GetLastError(handle);
    }

    String lastMessage() {
        return NATIVES.GetLastErrorMessage(handle);
    }

    void setDigest(String name) {
        assertEquals(0, NATIVES.SetDigestAlg(handle, name), this::lastMessage);
    }

    void addFilter(long type, String value) {
        assertEquals(0, NATIVES.AddFilter(handle, type, value), this::lastMessage);
    }

    String p1SignString(String text) {
        return NATIVES.P1SignString(handle, text);
    }

    String p1Sign(String base64) {
        return NATIVES.P1Sign(handle, base64);
    }

    String p7SignString(String text, boolean detached, boolean withCertificate) {
        return p7SignString(text, detached, withCertificate ? 1 : 0);
    }

    String p7Sign(String base64, boolean detached, boolean withCertificate) {
        return p7Sign(base64, detached, withCertificate ? 1 : 0);
    }

    /** @param certificates 0 for none, 2 for the signer's, anything else for the signer's and those of its issuers */
    String p7Sign(String base64, boolean detached, long certificates) {
        return NATIVES.P7Sign(handle, base64, detached ? 1 : 0, certificates);
    }

    /** @param certificates as for {@link #p7Sign(String, boolean, long)} */
    String p7SignString(String text, boolean detached, long certificates) {
        return NATIVES.P7SignString(handle, text, detached ? 1 : 0, certificates);
    }

    String certificateList() {
        String list = NATIVES.GetCertList(handle);
        assertNotNull(list, this::lastMessage);
        return list;
    }

    /** Returns the signature; fails the test with the toolkit's reason if it is null. */
    String require(String signature) {
        assertNotNull(signature, () -> "no signature: " + lastError() + " " + lastMessage());
        return signature;
    }
}
