package vex.client;

import java.io.ByteArrayOutputStream;

/** Collects data that the toolkit gets in one call. For one thread at a time. */
final class DataCollector {
    private final int limit;
    private final ByteArrayOutputStream data = new ByteArrayOutputStream();
    /** The data is incomplete: it must not be signed. */
    private boolean overflowed;

    /** @param limit in bytes */
    DataCollector(int limit) {
        this.limit = limit;
    }

    /** @throws SigningException as soon as there is more data than the limit, until {@link #take} */
    void add(byte[] bytes, int offset, int length) throws SigningException {
        if (overflowed || length > limit - data.size()) {
            overflowed = true;
            data.reset();
            throw tooLarge();
        }
        data.write(bytes, offset, length);
    }

    /** Returns the data, and begins again. */
    byte[] take() throws SigningException {
        byte[] bytes = data.toByteArray();
        data.reset();
        if (overflowed) {
            overflowed = false;
            throw tooLarge();
        }
        return bytes;
    }

    private SigningException tooLarge() {
        return SigningException.tooLarge("The data to sign has more than " + limit + " bytes");
    }
}
