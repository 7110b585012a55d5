package vex.client;

import java.io.ByteArrayOutputStream;
import java.nio.file.Path;
import java.util.Base64;
import vex.jni.VCTKError;

/**
 * The toolkit's store without keys that makes requests for time stamps, checks the replies and adds the stamps. Does
 * not know where replies come from: the reaper keeps it. Any thread may call any method.
 */
final class StampStore {
    private static final int DETACHED = 1;
    private static final int NO_CERTIFICATE = 0;

    private final HandlePool pool;

    private StampStore(HandlePool pool) {
        this.pool = pool;
    }

    /**
     * @param authority the certificates that stamps have to lead to; null: a stamp's path is not checked
     * @throws SigningException also if the toolkit does not know such stores
     */
    static StampStore open(Path authority) throws SigningException {
        if (!Toolkit.addsStamps()) {
            throw SigningException.notSupported("The toolkit cannot add time stamps: it does not know the store "
                + Toolkit.STAMPS + "; open the client without timestamp");
        }
        String store = Toolkit.STAMPS;
        if (Toolkit.explainsFailures()) {
            store = StoreText.withAttribute(store, Toolkit.ERRORS_AT_HANDLE);
        }
        if (authority != null) {
            store = StoreText.withStampAuthority(store, authority);
        }
        return new StampStore(HandlePool.of(Handle.open(store, false)));
    }

    /** @return a TimeStampReq in DER */
    byte[] request(byte[] cms) throws SigningException {
        return call(cms);
    }

    /**
     * Checks everything about the reply.
     *
     * @param reply one DER element
     * @return the CMS signature with the stamp as an unsigned attribute
     */
    byte[] stamped(byte[] cms, byte[] request, byte[] reply) throws SigningException {
        long length = (long) cms.length + request.length + reply.length;
        if (length > NativeText.MAX_BYTES) {
            throw SigningException.tooLarge("A signature that is to be stamped has at most "
                + NativeText.MAX_BYTES + " bytes with its request and reply; make a detached one");
        }
        ByteArrayOutputStream elements = new ByteArrayOutputStream((int) length);
        elements.write(cms, 0, cms.length);
        elements.write(request, 0, request.length);
        elements.write(reply, 0, reply.length);
        return call(elements.toByteArray());
    }

    HandlePool pool() {
        return pool;
    }

    private byte[] call(byte[] elements) throws SigningException {
        String base64 = NativeText.base64(elements);
        String result = pool.call(Selection.ALL, null, handle ->
            handle.signature((natives, number) -> natives.P7Sign(number, base64, DETACHED, NO_CERTIFICATE)));
        return Base64.getDecoder().decode(result);
    }

    /** Does not wait: calls in progress finish normally. May be repeated. */
    void close() {
        pool.close();
    }
}
