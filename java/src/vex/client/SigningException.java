package vex.client;

import java.security.GeneralSecurityException;
import java.util.Objects;
import vex.jni.VCTKError;

/**
 * Says why a store cannot be opened or a signature cannot be made. It is checked, because the reasons lie outside the
 * program: a missing file, a wrong PIN, an expired certificate. Errors of the program itself are unchecked exceptions:
 * {@link NullPointerException}, {@link IllegalArgumentException}, and {@link IllegalStateException} after a close.
 *
 * <p>The message is for people and names the thing: the path, the module, the filter. It contains no PIN and no store
 * URI. A program asks for the {@link #reason}.
 */
public final class SigningException extends GeneralSecurityException {
    private static final long serialVersionUID = 1L;

    /** What went wrong. */
    private final Reason reason;
    /** Never 0. */
    private final int number;

    SigningException(int number, String text) {
        this(Reason.of(number), number, text);
    }

    private SigningException(Reason reason, int number, String text) {
        super(text);
        this.reason = Objects.requireNonNull(reason, "reason");
        this.number = number;
    }

    /** An exception with the text of the number, followed by a detail. */
    static SigningException of(int number, String detail) {
        return new SigningException(number, VCTKError.message(number) + ": " + detail);
    }

    /** Not with the number's text, which is about the toolkit's own limit. */
    static SigningException tooLarge(String text) {
        return new SigningException(VCTKError.TOO_LARGE, text);
    }

    /** @param cause null: there is none */
    static SigningException notStamped(String detail, Throwable cause) {
        SigningException e = of(VCTKError.TIMESTAMP, detail);
        if (cause != null) {
            e.initCause(cause);
        }
        return e;
    }

    /** The toolkit has no number for what it does not have. */
    static SigningException notSupported(String text) {
        return new SigningException(Reason.NOT_SUPPORTED, VCTKError.INVALID_ARGUMENT, text);
    }

    static SigningException notSupported(String text, Throwable cause) {
        SigningException e = notSupported(text);
        e.initCause(cause);
        return e;
    }

    /** Decided here: the natives would refuse the text without giving a reason. */
    static SigningException notEncodable(String text) {
        return new SigningException(Reason.TEXT_NOT_ENCODABLE, VCTKError.INVALID_ARGUMENT, text);
    }

    /**
     * Returns what went wrong, for a program that reacts to it.
     *
     * @return the reason; later versions may have more of them
     */
    public Reason reason() {
        return reason;
    }

    /**
     * Returns the toolkit's number of the error, for a log or a report.
     *
     * @return never 0; with the toolkit that comes with this class, a constant of {@link VCTKError}
     */
    public int number() {
        return number;
    }

    /** What went wrong. */
    public enum Reason {
        /** The store's URI is malformed, or names an unknown kind of store or attribute. */
        STORE_URI_INVALID(VCTKError.URI_MALFORMED, VCTKError.URI_SCHEME),
        /** The store's file, or the file with the chain, does not exist. */
        STORE_NOT_FOUND(VCTKError.STORE_NOT_FOUND),
        /** The store's file cannot be read, or it would take too much work. */
        STORE_UNREADABLE(VCTKError.STORE_UNREADABLE),
        /** The store's file has another format, is damaged, or its encryption is not offered. */
        STORE_FORMAT(VCTKError.STORE_FORMAT),
        /** The store has no certificate with a private key that can sign. */
        STORE_WITHOUT_KEY(VCTKError.STORE_NO_PRIVATE_KEY),
        /** The store is protected by a PIN, and none was given. */
        PIN_MISSING(VCTKError.PIN_REQUIRED),
        /** The PIN is wrong. A token counts wrong PINs: ask a person before the next try. */
        PIN_WRONG(VCTKError.PIN_WRONG),
        /** The token has locked its PIN. */
        PIN_LOCKED(VCTKError.PIN_LOCKED),
        /** The file with the PIN cannot be used. */
        PIN_FILE_UNUSABLE(VCTKError.PIN_SOURCE),
        /** The demo store cannot be made or read. */
        DEMO_STORE_UNUSABLE(VCTKError.DEMO_STORE),
        /** The PKCS #11 module cannot be used. */
        TOKEN_MODULE(VCTKError.TOKEN_MODULE),
        /** The store's URI matches no token that is present, or more than one. */
        TOKEN_NOT_FOUND(VCTKError.TOKEN_NOT_FOUND),
        /** The token was removed. */
        TOKEN_REMOVED(VCTKError.TOKEN_REMOVED),
        /** The token failed. */
        TOKEN_FAILED(VCTKError.TOKEN_FAILED),
        /** The toolkit does not know the digest algorithm. */
        DIGEST_UNKNOWN(VCTKError.DIGEST_UNKNOWN),
        /** Signatures with the digest algorithm can be forged. */
        DIGEST_WEAK(VCTKError.DIGEST_WEAK),
        /** The toolkit does not know the filter. */
        FILTER_UNKNOWN(VCTKError.FILTER_TYPE),
        /** The filter's value is empty or malformed. */
        FILTER_VALUE(VCTKError.FILTER_VALUE),
        /**
         * No certificate can sign now: none is valid, has a private key that is long enough and for signing, and
         * passes the filters.
         */
        NO_CERTIFICATE(VCTKError.NO_CERTIFICATE),
        /** More than one certificate passes the filters, and one alone is wanted. */
        SEVERAL_CERTIFICATES(VCTKError.SEVERAL_CERTIFICATES),
        /** There is no data to sign. */
        DATA_EMPTY(VCTKError.DATA_EMPTY),
        /** There is more data than a call can sign, or the signature would be too large. */
        DATA_TOO_LARGE(VCTKError.TOO_LARGE),
        /** The text has a character that the process locale cannot encode, U+0000 or an unpaired surrogate. */
        TEXT_NOT_ENCODABLE,
        /** A value is out of range, such as a digest of another length than its algorithm's. */
        ARGUMENT_INVALID(VCTKError.INVALID_ARGUMENT),
        /** The toolkit, or this Java, cannot do this. */
        NOT_SUPPORTED,
        /** The signature could not be made: the key cannot make one of this kind, or it failed. */
        SIGNING_FAILED(VCTKError.SIGN_FAILED),
        /** The signature could not be time-stamped: no authority gave a good stamp, or it has no place for one. */
        TIMESTAMP(VCTKError.TIMESTAMP),
        /** Memory ran out. */
        OUT_OF_MEMORY(VCTKError.OUT_OF_MEMORY),
        /** An error of the toolkit or of this package. */
        INTERNAL(VCTKError.INTERNAL, VCTKError.INVALID_HANDLE, VCTKError.BUFFER_TOO_SMALL, VCTKError.DATA_BASE64,
            VCTKError.NO_SIGNATURE),
        /** This class does not know the toolkit's {@link SigningException#number}. */
        OTHER;

        private final int[] numbers;

        Reason(int... numbers) {
            this.numbers = numbers;
        }

        static Reason of(int number) {
            for (Reason reason : values()) {
                for (int known : reason.numbers) {
                    if (known == number) {
                        return reason;
                    }
                }
            }
            return OTHER;
        }
    }
}
