package vex.client;

import java.io.ByteArrayOutputStream;
import vex.jni.VCTKError;

/** Collects data that the toolkit gets in one call. For one thread at a time. */
final class DataCollector {
    private final int limit;
    private final ByteArrayOutputStream data = new ByteArrayOutputStream();
    /** Why the data is incomplete, so that it must not be signed; OK: it is complete. */
    private int problem = VCTKError.OK;

    /** @param limit in bytes */
    DataCollector(int limit) {
        this.limit = limit;
    }

    /** @throws SigningException if the data is incomplete, until {@link #take}: at once if it exceeds the limit */
    void add(byte[] bytes, int offset, int length) throws SigningException {
        if (problem == VCTKError.OK && length > limit - data.size()) {
            problem = VCTKError.TOO_LARGE;
        }
        if (problem != VCTKError.OK) {
            data.reset();
            throw incomplete();
        }
        problem = VCTKError.OUT_OF_MEMORY;  // unless the next line ends normally
        data.write(bytes, offset, length);
        problem = VCTKError.OK;
    }

    /** Returns the data, and begins again, also if this fails. */
    byte[] take() throws SigningException {
        try {
            if (problem != VCTKError.OK) {
                throw incomplete();
            }
            return data.toByteArray();
        } finally {
            data.reset();
            problem = VCTKError.OK;
        }
    }

    private SigningException incomplete() {
        return problem == VCTKError.TOO_LARGE
            ? SigningException.tooLarge("The data to sign has more than " + limit + " bytes")
            : SigningException.of(problem, "a part of the data to sign is missing");
    }
}
