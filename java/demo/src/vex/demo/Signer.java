package vex.demo;

import java.util.List;
import vex.jni.TAVClientJNI;
import vex.jni.VCTKError;

/** A signing object with exceptions in place of statuses and nulls. */
class Signer implements AutoCloseable {
    private static final TAVClientJNI CLIENT = new TAVClientJNI();

    private final long handle;

    /** Opens the store that the URI names. */
    Signer(String store) throws DemoException {
        handle = CLIENT.Initialize(null, store);
        if (handle == 0) {
            // Without a handle there is only the number.
            long number = CLIENT.GetLastError(0);
            throw new DemoException("The certificate store cannot be opened: " + VCTKError.message(number)
                + " (toolkit error " + number + ").");
        }
    }

    @Override
    public void close() {
        CLIENT.Finalize(handle);
    }

    void setDigest(String name) throws DemoException {
        check("The digest algorithm " + name + " is refused", CLIENT.SetDigestAlg(handle, name) == 0);
    }

    void addFilter(long type, String value) throws DemoException {
        check("The filter value \"" + value + "\" is refused", CLIENT.AddFilter(handle, type, value) == 0);
    }

    /** The certificates that could sign. */
    List<CertificateRecord> certificates() throws DemoException {
        String list = CLIENT.GetCertList(handle);
        check("The certificates cannot be listed", list != null);
        return CertificateRecord.parseList(list);
    }

    /** A P1 signature in Base64. */
    String signP1(Content content) throws DemoException {
        String signature = content.isText()
            ? CLIENT.P1SignString(handle, content.argument())
            : CLIENT.P1Sign(handle, content.argument());
        check("The P1 signature cannot be made", signature != null);
        return signature;
    }

    /** A P7 signature in Base64. */
    String signP7(Content content, boolean detached, boolean withCertificate) throws DemoException {
        long detach = detached ? 1 : 0;
        long includeCert = withCertificate ? 1 : 0;
        String signature = content.isText()
            ? CLIENT.P7SignString(handle, content.argument(), detach, includeCert)
            : CLIENT.P7Sign(handle, content.argument(), detach, includeCert);
        check("The P7 signature cannot be made", signature != null);
        return signature;
    }

    private void check(String complaint, boolean success) throws DemoException {
        if (!success) {
            throw new DemoException(complaint + ": " + CLIENT.GetLastErrorMessage(handle) + " (toolkit error "
                + CLIENT.GetLastError(handle) + ").");
        }
    }
}
