package vex.jni;

/**
 * Signs text and data with a certificate's private key: P1 signatures (RSASSA-PKCS1-v1_5 or ECDSA) and P7 signatures
 * (CMS SignedData). The methods are those of the native library {@code libTAVClientJNI.so}, which this class loads.
 *
 * <h2>A signing object and its handle</h2>
 * {@link #Initialize} opens a certificate store and returns a handle, a number other than 0. The other methods take it;
 * it is valid until {@link #Finalize}. A handle that is not finalized stays open until the process ends. A handle that
 * was finalized or never existed is refused like any other failure; its number is never used again. Instances of this
 * class have no state: any instance works with any handle.
 *
 * <h2>Results</h2>
 * No method throws an exception when it fails. A status is 0 on success and 1 on failure; a text is {@code null} on
 * failure. {@link #GetLastError} and {@link #GetLastErrorMessage} then tell the reason; the numbers are those of
 * {@link VCTKError}.
 *
 * <h2>Texts</h2>
 * Every text argument is encoded in the <em>process locale</em> (the environment's {@code LC_ALL}, {@code LC_CTYPE} or
 * {@code LANG}; the system property {@code file.encoding} does not matter). A UTF-8 locale can encode all of Unicode.
 * Under another locale, a text with a character that it cannot encode is refused. Other data is passed as Base64, which
 * every locale can encode.
 *
 * <p>Where a text is needed, {@code null}, the empty text, and a text with U+0000 or an unpaired surrogate are refused
 * under every locale. Handle 0 is refused too. These calls do not reach the toolkit, and the last error stays the same.
 *
 * <h2>Threads</h2>
 * Any thread may call any method on any handle, without locking. Calls on one handle run one after the other; calls on
 * different handles run in parallel. The digest algorithm, the filters and the single choice belong to the handle, so
 * all its threads share them. The last error belongs to the handle <em>and</em> the calling platform thread, so no
 * platform thread sees the error of another.
 *
 * <p>Virtual threads with the same carrier, a platform thread, share a last error. A virtual thread may change its
 * carrier when it waits. So call {@link #GetLastError} directly after the failed call, and do nothing in between that
 * may wait (no lock, no input or output, no logging, no class that is used for the first time). A native that waits for
 * its turn on the handle keeps its carrier, so do not share a handle among many virtual threads. {@code vex.client}
 * takes care of all this.
 *
 * <h2>Loading</h2>
 * The first use of this class loads the native library. If the system property {@code vex.jni.library} is set, it is
 * the library's full path. Otherwise {@code System.loadLibrary("TAVClientJNI")} searches {@code java.library.path}. If
 * the library is not there but in the jar, it is loaded from the jar. If loading fails, the first use throws an
 * {@link UnsatisfiedLinkError} that says what was tried, why it failed and what to do; every later use throws a
 * {@link NoClassDefFoundError}. With Java 24 and newer, start the JVM with
 * {@code --enable-native-access=ALL-UNNAMED} to avoid its warning.
 */
public class TAVClientJNI {
    /** Filter: the RFC 4514 text of the issuer's name contains the value, in upper or lower case. */
    public static final long FILTER_ISSUER = 1;

    /** Filter: the RFC 4514 text of the subject's name contains the value, in upper or lower case. */
    public static final long FILTER_SUBJECT = 2;

    /**
     * Filter: the serial number is the value, in hexadecimal. Upper or lower case, leading zeros and colons between the
     * digit pairs do not matter. A negative number begins with a minus sign.
     */
    public static final long FILTER_SERIAL = 3;

    /**
     * Filter: the SHA-256 digest of the certificate's DER form is the value, 64 hexadecimal digits. Upper or lower case
     * and colons between the digit pairs do not matter.
     */
    public static final long FILTER_FINGERPRINT = 4;

    /**
     * Filter: the certificate's key usage includes the value, one of the names {@code digitalSignature},
     * {@code nonRepudiation}, {@code keyEncipherment}, {@code dataEncipherment}, {@code keyAgreement},
     * {@code keyCertSign}, {@code cRLSign}, {@code encipherOnly} and {@code decipherOnly} in upper or lower case. A
     * certificate without key usages passes.
     */
    public static final long FILTER_KEY_USAGE = 5;

    /**
     * Filter: the key has this algorithm, {@code RSA}, {@code RSA-PSS}, {@code EC}, {@code ED25519} or {@code ED448} in
     * upper or lower case.
     */
    public static final long FILTER_KEY_ALGORITHM = 6;

    /**
     * Filter: the certificate's key usage includes all of the values, which are names as for {@link #FILTER_KEY_USAGE},
     * separated by commas ({@code contentCommitment} is {@code nonRepudiation}). A certificate without key usages does
     * not pass.
     */
    public static final long FILTER_KEY_USAGE_ALL = 7;

    /**
     * Filter: the certificate's extended key usage lists all of the values, dotted OIDs or the names
     * {@code serverAuth}, {@code clientAuth}, {@code codeSigning}, {@code emailProtection}, {@code timeStamping} and
     * {@code OCSPSigning} in upper or lower case, separated by commas. {@code anyExtendedKeyUsage} in a certificate
     * does not stand for others.
     */
    public static final long FILTER_EXTENDED_KEY_USAGE = 8;

    /** Filter: the certificate is valid at this time as well as now; UTC, such as {@code 2026-11-21T05:00:00Z}. */
    public static final long FILTER_VALID_AT = 9;

    /** Filter: the certificate has this policy, a dotted OID. */
    public static final long FILTER_POLICY = 10;

    /** Filter: the RSA modulus or the field of the curve has at least this number of bits, in decimal. */
    public static final long FILTER_KEY_SIZE = 11;

    /**
     * Filter: the subject's name equals the value, an RFC 4514 name. Names are compared as in RFC 5280 section 7.1:
     * upper or lower case and the number of blanks in a row do not matter.
     */
    public static final long FILTER_SUBJECT_NAME = 12;

    /** Filter: the issuer's name equals the value, compared as for {@link #FILTER_SUBJECT_NAME}. */
    public static final long FILTER_ISSUER_NAME = 13;

    static {
        LibraryLoader.load();
    }

    /** Creates an instance; instances have no state. */
    public TAVClientJNI() {}

    /**
     * Opens a certificate store.
     *
     * @param bstrAlgType not used; may be {@code null}
     * @param bstrAuxParam the URI of the store: {@code demo:} for the user's demo store with one RSA and one EC
     *     certificate, created on first use; {@code file:/path/keys.p12?pin-value=1234} or
     *     {@code file:/path/keys.pem?pin-source=file:/path/pin} for a PKCS #12 or PEM file, with its PIN or the file
     *     that holds the PIN if it needs one; {@code pkcs11:token=Card;id=%01?pin-source=file:/path/pin} for a smart
     *     card or another PKCS #11 token (RFC 7512), where {@code module-path} and {@code module-name} after the
     *     {@code ?} name the module that gives access to it. Percent-encode {@code %}, {@code ?} and {@code #} in paths
     *     and values, {@code &} in values, and {@code ;} in values of a token. Trust a URI only as you would trust a
     *     program: a module's code runs in this process
     * @return the handle of a new signing object, or 0 on failure. After a failure,
     *     {@link #GetLastError GetLastError(0)} on the same thread returns the number of the reason, and
     *     {@link VCTKError#message} its text. For {@code null} and the empty text that number stays unchanged
     */
    public native long Initialize(String bstrAlgType, String bstrAuxParam);

    /**
     * Sets the digest algorithm of later signatures. The default is SHA-256.
     *
     * @param handle from {@link #Initialize}
     * @param bstrDigestAlg an algorithm of the SHA-2 or SHA-3 family in any usual spelling, for example {@code SHA256},
     *     {@code SHA-384}, {@code sha512} or {@code SHA3-256}. Broken algorithms such as {@code SHA-1} and {@code MD5}
     *     are refused. With {@code /PSS} behind it, RSA keys make RSASSA-PSS signatures. With {@code prehashed:} before
     *     it, {@link #P1Sign} and {@link #P7Sign} (detached) get the digest itself in Base64, so they sign what they
     *     cannot see. {@code prehashed:NONE} signs the bytes given. Ed25519 and Ed448 keys have their own digest
     * @return 0, or 1 on failure; the algorithm then stays unchanged
     */
    public native long SetDigestAlg(long handle, String bstrDigestAlg);

    /**
     * Sets what happens when several certificates pass the filters.
     *
     * @param handle from {@link #Initialize}
     * @param isChoose 0 (the default): the certificate that stays valid longest signs; among equals, the first in the
     *     store. Any other value: signing fails unless exactly one certificate passes
     * @return 0, or 1 on failure
     */
    public native long SetChooseSingleCert(long handle, int isChoose);

    /**
     * Adds a filter. A certificate signs, and is listed by {@link #GetCertList}, only if it passes every filter of the
     * handle.
     *
     * @param handle from {@link #Initialize}
     * @param ulType one of the {@code FILTER_} constants
     * @param bstrValue a value as the type describes it
     * @return 0, or 1 on failure; the filters then stay unchanged. If no certificate passes a filter, adding it
     *     succeeds and signing fails
     */
    public native long AddFilter(long handle, long ulType, String bstrValue);

    /**
     * Removes all filters.
     *
     * @param handle from {@link #Initialize}
     * @return 0, or 1 on failure
     */
    public native long ClearFilter(long handle);

    /**
     * Makes a P1 signature of data given as Base64.
     *
     * @param handle from {@link #Initialize}
     * @param bstrValueBase64 the data's bytes in Base64, in the form of {@link java.util.Base64#getEncoder()}: the
     *     basic alphabet, padding, one line
     * @return the signature as Base64 in one line, {@code null} on failure. With an RSA key it is RSASSA-PKCS1-v1_5
     *     (the JDK's {@code SHA256withRSA}) or, if the digest algorithm or the certificate says so, RSASSA-PSS; with an
     *     EC key ECDSA in its DER form ({@code SHA256withECDSA}); with an Ed25519 or Ed448 key the one of RFC 8032
     */
    public native String P1Sign(long handle, String bstrValueBase64);

    /**
     * Makes a P1 signature of a text.
     *
     * @param handle from {@link #Initialize}
     * @param bstrValue the text itself. Its bytes in the encoding of the process locale are signed unchanged: line ends
     *     are not converted, and nothing is added
     * @return as for {@link #P1Sign}
     */
    public native String P1SignString(long handle, String bstrValue);

    /**
     * Makes a P7 signature of data given as Base64.
     *
     * @param handle from {@link #Initialize}
     * @param bstrValue the data's bytes in Base64, as for {@link #P1Sign}
     * @param bDetach 0: the signature contains the data. 1: it does not, and verifying needs both. Here and for
     *     {@code bIncludeCert}, any value whose low 32 bits are not 0 counts as 1
     * @param bIncludeCert 1: the signature contains the signer's certificate. 0: it does not, and verifying needs both
     * @return the signature, CMS SignedData in DER as Base64 in one line, {@code null} on failure. The signed
     *     attributes include the time of signing and the certificate's digest
     */
    public native String P7Sign(long handle, String bstrValue, long bDetach, long bIncludeCert);

    /**
     * Makes a P7 signature of a text.
     *
     * @param handle from {@link #Initialize}
     * @param bstrValue the text itself, as for {@link #P1SignString}
     * @param bDetach as for {@link #P7Sign}
     * @param bIncludeCert as for {@link #P7Sign}
     * @return as for {@link #P7Sign}
     */
    public native String P7SignString(long handle, String bstrValue, long bDetach, long bIncludeCert);

    /**
     * Closes a signing object. Calls of other threads on it that are in progress finish normally.
     *
     * @param handle from {@link #Initialize}; do not use it afterwards
     * @return 0, or 1 on failure
     */
    public native long Finalize(long handle);

    /**
     * Returns the version of the native library, 1.0.0.1, in a strange form that is part of its interface: the seven
     * characters {@code '1', U+0000, '.', U+0000, '0', U+0000, '.'}. This is the first half of the text with a U+0000
     * after each character.
     *
     * @param handle not used; 0 is accepted
     * @return these seven characters, always
     */
    public native String GetSignVersion(long handle);

    /**
     * Always returns {@code null}. To get the certificate, make a P7 signature that includes it and read it from there
     * with {@link java.security.cert.CertificateFactory#generateCertificates}.
     *
     * @param handle from {@link #Initialize}
     * @return {@code null}
     */
    public native String GetSignCert(long handle);

    /**
     * Returns the number of the calling platform thread's last error on this handle.
     *
     * @param handle from {@link #Initialize}; or 0 for the calling thread's last error without a handle, such as that
     *     of a failed {@link #Initialize}
     * @return a number of {@link VCTKError}; 0 when the thread's last call on this handle succeeded
     */
    public native long GetLastError(long handle);

    /**
     * Returns the English text of the calling thread's last error on this handle, with details if there are any.
     *
     * @param handle from {@link #Initialize}
     * @return the text, {@code null} for handle 0
     */
    public native String GetLastErrorMessage(long handle);

    /**
     * Lists the certificates that could sign: they are valid now, have their private key in the store, and pass all
     * filters.
     *
     * @param handle from {@link #Initialize}
     * @return one record for each certificate, separated by CR LF; empty when there is none, {@code null} on failure. A
     *     record has seven fields separated by one blank: serial number and SHA-256 fingerprint in upper-case
     *     hexadecimal, start and end of the validity in UTC such as {@code 2026-11-21T05:00:00Z}, the key's algorithm
     *     (as for {@link #FILTER_KEY_ALGORITHM}), subject and issuer. The names are RFC 4514 text, with each blank
     *     written as {@code \20}
     */
    public native String GetCertList(long handle);
}
