package vex.client;

import java.security.GeneralSecurityException;
import vex.jni.VCTKError;

/**
 * Says why a store cannot be opened or a signature cannot be made. It is checked, because the reasons lie outside the
 * program: a missing file, a wrong PIN, an expired certificate. Errors of the program itself are unchecked exceptions:
 * {@link NullPointerException}, {@link IllegalArgumentException}, and {@link IllegalStateException} after a close.
 *
 * <p>The message contains no PIN and no store URI.
 */
public final class SigningException extends GeneralSecurityException {
    private static final long serialVersionUID = 1L;

    /** Never 0. */
    private final int number;

    SigningException(int number, String text) {
        super(text);
        this.number = number;
    }

    /** An exception with the text of the number, followed by a detail. */
    static SigningException of(int number, String detail) {
        return new SigningException(number, VCTKError.message(number) + ": " + detail);
    }

    /**
     * Returns the toolkit's number of the error.
     *
     * @return never 0; with the toolkit that comes with this class, a constant of {@link VCTKError}
     */
    public int number() {
        return number;
    }
}
