package vex.client;

import java.security.GeneralSecurityException;
import vex.jni.VCTKError;

/**
 * Says why a store could not be opened or a signature could not be made. It is checked, because the reasons lie outside
 * the program: a file, a PIN, a certificate that has expired. Errors of the program itself are unchecked exceptions:
 * {@link NullPointerException}, {@link IllegalArgumentException}, and {@link IllegalStateException} after a close.
 *
 * <p>Neither the number nor the text tells a PIN or a store's URI.
 */
public final class SigningException extends GeneralSecurityException {
    private static final long serialVersionUID = 1L;

    /** Never 0. */
    private final int number;

    SigningException(int number, String text) {
        super(text);
        this.number = number;
    }

    /** One whose text is the number's own, with a detail. */
    static SigningException of(int number, String detail) {
        return new SigningException(number, VCTKError.message(number) + ": " + detail);
    }

    /**
     * The toolkit's number of the error.
     *
     * @return a constant of {@link VCTKError} when the toolkit is the one that comes with this class, never 0
     */
    public int number() {
        return number;
    }
}
