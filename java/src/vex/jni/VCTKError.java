package vex.jni;

/** The error numbers that {@link TAVClientJNI#GetLastError} returns, and their English texts. */
public final class VCTKError {
    /** No error. */
    public static final int OK = 0;

    /** The handle does not name an open signing object. */
    public static final int INVALID_HANDLE = 1001;
    /** An argument is missing or out of range. */
    public static final int INVALID_ARGUMENT = 1002;
    /** The buffer is too small for the text. */
    public static final int BUFFER_TOO_SMALL = 1003;
    /** Out of memory. */
    public static final int OUT_OF_MEMORY = 1004;
    /** The data or its result is larger than 2 GiB. */
    public static final int TOO_LARGE = 1005;
    /** The cryptographic library failed. */
    public static final int INTERNAL = 1006;

    /** The initialisation text is not a well-formed store URI. */
    public static final int URI_MALFORMED = 1101;
    /** The initialisation text names an unknown kind of store. */
    public static final int URI_SCHEME = 1102;
    /** The store file does not exist. */
    public static final int STORE_NOT_FOUND = 1103;
    /** The store file cannot be read. */
    public static final int STORE_UNREADABLE = 1104;
    /** The store file cannot be used: it has another format, is damaged, or its encryption is too old. */
    public static final int STORE_FORMAT = 1105;
    /** The store has no certificate with a private key for signing. */
    public static final int STORE_NO_PRIVATE_KEY = 1106;
    /** The store is protected by a PIN and none was given. */
    public static final int PIN_REQUIRED = 1107;
    /** The PIN is wrong. */
    public static final int PIN_WRONG = 1108;
    /** The file that holds the PIN cannot be used. */
    public static final int PIN_SOURCE = 1109;
    /** The demo store cannot be made or read. */
    public static final int DEMO_STORE = 1110;
    /** The PKCS #11 module cannot be used. */
    public static final int TOKEN_MODULE = 1111;
    /** The store URI matches no present token, or more than one. */
    public static final int TOKEN_NOT_FOUND = 1112;
    /** The token is not present or has been removed. */
    public static final int TOKEN_REMOVED = 1113;
    /** The token failed. */
    public static final int TOKEN_FAILED = 1114;
    /** The token's PIN is locked. */
    public static final int PIN_LOCKED = 1115;

    /** The digest algorithm is unknown. */
    public static final int DIGEST_UNKNOWN = 1201;
    /** The digest algorithm is broken: signatures made with it can be forged. */
    public static final int DIGEST_WEAK = 1202;
    /** The filter type is unknown. */
    public static final int FILTER_TYPE = 1203;
    /** The filter value is empty or malformed for its type. */
    public static final int FILTER_VALUE = 1204;

    /** No valid certificate with a private key passes the filters. */
    public static final int NO_CERTIFICATE = 1301;
    /** More than one certificate passes the filters. */
    public static final int SEVERAL_CERTIFICATES = 1302;
    /** There is no data to sign. */
    public static final int DATA_EMPTY = 1303;
    /** The data is not strict Base64. */
    public static final int DATA_BASE64 = 1304;
    /** The signature could not be made. */
    public static final int SIGN_FAILED = 1305;
    /** This thread has made no such signature with this object. */
    public static final int NO_SIGNATURE = 1306;

    /** The signature could not be time-stamped. */
    public static final int TIMESTAMP = 1401;

    private VCTKError() {}

    /**
     * Returns the text of an error number. It is needed when there is no handle to ask: after a failed
     * {@link TAVClientJNI#Initialize}. Any thread may call it.
     *
     * @param number from {@link TAVClientJNI#GetLastError}
     * @return the text without a full stop; for an unknown number, a text with the number
     */
    public static String message(long number) {
        if (number != (int) number) {
            return "Unknown error " + number;
        }
        switch ((int) number) {
            case OK: return "No error";
            case INVALID_HANDLE: return "The handle does not name an open signing object";
            case INVALID_ARGUMENT: return "An argument is missing or out of range";
            case BUFFER_TOO_SMALL: return "The buffer is too small for the text";
            case OUT_OF_MEMORY: return "Out of memory";
            case TOO_LARGE: return "The data or its result is larger than 2 GiB";
            case INTERNAL: return "The cryptographic library failed";
            case URI_MALFORMED: return "The initialisation text is not a well-formed store URI";
            case URI_SCHEME: return "The initialisation text names an unknown kind of store";
            case STORE_NOT_FOUND: return "The store file does not exist";
            case STORE_UNREADABLE: return "The store file cannot be read";
            case STORE_FORMAT: return "The content of the store file cannot be used";
            case STORE_NO_PRIVATE_KEY: return "The store has no certificate with a private key for signing";
            case PIN_REQUIRED: return "The store is protected by a PIN and none was given";
            case PIN_WRONG: return "The PIN is wrong";
            case PIN_SOURCE: return "The file that holds the PIN cannot be used";
            case DEMO_STORE: return "The demo store cannot be made or read";
            case TOKEN_MODULE: return "The PKCS #11 module cannot be used";
            case TOKEN_NOT_FOUND: return "The store URI matches no present token, or more than one";
            case TOKEN_REMOVED: return "The token is not present or has been removed";
            case TOKEN_FAILED: return "The token failed";
            case PIN_LOCKED: return "The token's PIN is locked";
            case DIGEST_UNKNOWN: return "The digest algorithm is unknown";
            case DIGEST_WEAK: return "The digest algorithm is broken: signatures made with it can be forged";
            case FILTER_TYPE: return "The filter type is unknown";
            case FILTER_VALUE: return "The filter value is empty or malformed for its type";
            case NO_CERTIFICATE: return "No valid certificate with a private key passes the filters";
            case SEVERAL_CERTIFICATES: return "More than one certificate passes the filters";
            case DATA_EMPTY: return "There is no data to sign";
            case DATA_BASE64: return "The data is not strict Base64";
            case SIGN_FAILED: return "The signature could not be made";
            case NO_SIGNATURE: return "This thread has made no such signature with this object";
            case TIMESTAMP: return "The signature could not be time-stamped";
            default: return "Unknown error " + number;
        }
    }
}
