package vex.jni;

/**
 * Signs text and data with a certificate's private key: P1 signatures (RSASSA-PKCS1-v1_5 or ECDSA) and P7 signatures
 * (CMS SignedData). The methods are the native library {@code libTAVClientJNI.so}'s; this class adds nothing to them
 * but the loading.
 *
 * <h2>A signing object and its handle</h2>
 * {@link #Initialize} opens a certificate store and returns a handle, a number other than 0. It is given to every other
 * method and is valid until {@link #Finalize}. An instance of this class keeps nothing: any instance may be used with
 * any handle, and a handle that is not finalized stays open until the process ends. A handle that was finalized or
 * never existed is refused like any other failure; its number does not come back for another object.
 *
 * <h2>Results</h2>
 * No method throws because signing or a setting failed. A status is 0 for success and 1 for failure, a text is
 * {@code null} on failure. {@link #GetLastError} and {@link #GetLastErrorMessage} then tell why; the numbers are those
 * of {@link VCTKError}.
 *
 * <h2>Texts</h2>
 * Every text that goes in is encoded in the <em>process locale</em> (the environment's {@code LC_ALL}, {@code LC_CTYPE}
 * or {@code LANG}; the system property {@code file.encoding} does not matter). Under a UTF-8 locale that covers all of
 * Unicode; under any other, a text with a character that the locale cannot encode is refused. Data that is not text
 * goes in as Base64, which every locale can encode.
 *
 * <p>Where a text is needed, {@code null}, the empty text, and under any locale a text that contains U+0000 or an
 * unpaired surrogate are all refused before the toolkit is asked; so is handle 0. The last error stays as it was then.
 *
 * <h2>Threads</h2>
 * Any thread may call any method on any handle, without locking. Calls on one handle run one after the other, calls on
 * different handles side by side. Digest algorithm, filters and single choice belong to the handle and therefore to all
 * its threads; the last error belongs to the handle <em>and</em> the calling platform thread, so no platform thread
 * sees another's.
 *
 * <p>Virtual threads share a last error with all others that their carrier, a platform thread, runs. A virtual thread
 * may change its carrier when it waits: ask {@link #GetLastError} directly after the failed call, with nothing between
 * them that may wait (no lock, no input or output, no logging). {@code vex.client} does so.
 *
 * <h2>Loading</h2>
 * The native library is loaded with this class: from the full path in the system property {@code vex.jni.library} if
 * that is set, else by {@code System.loadLibrary("TAVClientJNI")}, which searches {@code java.library.path}, else out
 * of the jar if that carries it. When it cannot be loaded, the class's first use throws an {@link UnsatisfiedLinkError}
 * that says what was tried, why it failed and what to do (every later use a {@link NoClassDefFoundError}). From Java 24
 * on, start the JVM with {@code --enable-native-access=ALL-UNNAMED} to avoid its warning.
 */
public class TAVClientJNI {
    /** Filter: the issuer's name as RFC 4514 text contains the value, in any case. */
    public static final long FILTER_ISSUER = 1;

    /** Filter: the subject's name as RFC 4514 text contains the value, in any case. */
    public static final long FILTER_SUBJECT = 2;

    /**
     * Filter: the serial number is the value, in hexadecimal of any case; colons between the digit pairs and leading
     * zeros do not matter. A negative number begins with a minus sign.
     */
    public static final long FILTER_SERIAL = 3;

    /**
     * Filter: the SHA-256 digest of the DER certificate is the value, 64 hexadecimal digits of any case; colons between
     * the digit pairs do not matter.
     */
    public static final long FILTER_FINGERPRINT = 4;

    /**
     * Filter: the certificate's key usage includes the value, one of the names {@code digitalSignature},
     * {@code nonRepudiation}, {@code keyEncipherment}, {@code dataEncipherment}, {@code keyAgreement},
     * {@code keyCertSign}, {@code cRLSign}, {@code encipherOnly} and {@code decipherOnly} in any case. A certificate
     * that does not restrict its key's usage passes.
     */
    public static final long FILTER_KEY_USAGE = 5;

    /** Filter: the key is of this algorithm, {@code RSA} or {@code EC} in any case. */
    public static final long FILTER_KEY_ALGORITHM = 6;

    /**
     * Filter: the certificate's key usage includes all of the values, names as for {@link #FILTER_KEY_USAGE}
     * ({@code contentCommitment} is {@code nonRepudiation}) separated by commas. A certificate that does not restrict
     * its key's usage does not pass.
     */
    public static final long FILTER_KEY_USAGE_ALL = 7;

    /**
     * Filter: the certificate's extended key usage lists all of the values, dotted OIDs or the names
     * {@code serverAuth}, {@code clientAuth}, {@code codeSigning}, {@code emailProtection}, {@code timeStamping} and
     * {@code OCSPSigning} in any case, separated by commas. A listed {@code anyExtendedKeyUsage} does not stand for
     * others.
     */
    public static final long FILTER_EXTENDED_KEY_USAGE = 8;

    /** Filter: the certificate is valid at this time as well, UTC in the form {@code 2026-11-21T05:00:00Z}. */
    public static final long FILTER_VALID_AT = 9;

    /** Filter: the value, a dotted OID, is among the certificate policies. */
    public static final long FILTER_POLICY = 10;

    /** Filter: the RSA modulus or the field of the EC key's curve has at least so many bits, in decimal. */
    public static final long FILTER_KEY_SIZE = 11;

    /**
     * Filter: the subject's name equals the value, an RFC 4514 name, as RFC 5280 section 7.1 compares names: in any
     * case, and with any number of blanks where there is one.
     */
    public static final long FILTER_SUBJECT_NAME = 12;

    /** Filter: the issuer's name equals the value, compared as for {@link #FILTER_SUBJECT_NAME}. */
    public static final long FILTER_ISSUER_NAME = 13;

    static {
        LibraryLoader.load();
    }

    /** Makes an instance; it holds no state of its own. */
    public TAVClientJNI() {}

    /**
     * Opens a certificate store.
     *
     * @param bstrAlgType not used; may be {@code null}
     * @param bstrAuxParam which store, a URI: {@code demo:} for the user's demo store with one RSA and one EC
     *     certificate, made on first use; {@code file:/path/keys.p12?pin-value=1234} or
     *     {@code file:/path/keys.pem?pin-source=file:/path/pin} for a PKCS #12 or PEM file, with its PIN or the file
     *     that holds the PIN where it is protected; {@code pkcs11:token=Card;id=%01?pin-source=file:/path/pin} for a
     *     smart card or another PKCS #11 token (RFC 7512), where {@code module-path} and {@code module-name} behind the
     *     {@code ?} say which module gives access to it. {@code %}, {@code ?} and {@code #} in paths and values,
     *     {@code &} in values, and {@code ;} in a token's, are percent-encoded. The URI is as trusted as a program: a
     *     module's code runs in this process
     * @return the handle of a new signing object, or 0 on failure. There is no object then to ask for the reason:
     *     {@link #GetLastError GetLastError(0)} on the same thread gives the number and
     *     {@link VCTKError#message} its text. {@code null} and the empty text give 0 and leave that number as it was
     */
    public native long Initialize(String bstrAlgType, String bstrAuxParam);

    /**
     * Sets the digest algorithm of the signatures made from now on. Until it is called that is SHA-256.
     *
     * @param handle from {@link #Initialize}
     * @param bstrDigestAlg a name of the SHA-2 or SHA-3 family in any usual spelling and any case, for example
     *     {@code SHA256}, {@code SHA-384}, {@code sha512} or {@code SHA3-256}. Names of broken algorithms such as
     *     {@code SHA-1} and {@code MD5} are refused
     * @return 0, or 1 on failure; the algorithm then stays as it was
     */
    public native long SetDigestAlg(long handle, String bstrDigestAlg);

    /**
     * Says what happens when several certificates pass the filters.
     *
     * @param handle from {@link #Initialize}
     * @param isChoose 0 (the initial setting): signing takes the certificate that stays valid longest, the first in the
     *     store among equals. Any other value: signing fails unless exactly one certificate passes
     * @return 0, or 1 on failure
     */
    public native long SetChooseSingleCert(long handle, int isChoose);

    /**
     * Adds a filter. A certificate signs, and is listed by {@link #GetCertList}, only if it passes every filter of the
     * handle.
     *
     * @param handle from {@link #Initialize}
     * @param ulType one of the {@code FILTER_} constants
     * @param bstrValue what the type says
     * @return 0, or 1 on failure; the filters then stay as they were. A filter that no certificate passes is no failure
     *     here but when signing
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
     * @param bstrValueBase64 the data's bytes in Base64: the ordinary alphabet with padding, in one line, as
     *     {@link java.util.Base64#getEncoder()} writes it
     * @return the signature as Base64 in one line, {@code null} on failure. With an RSA key it is RSASSA-PKCS1-v1_5
     *     (the JDK's {@code SHA256withRSA}), with an EC key ECDSA in its DER form ({@code SHA256withECDSA})
     */
    public native String P1Sign(long handle, String bstrValueBase64);

    /**
     * Makes a P1 signature of a text.
     *
     * @param handle from {@link #Initialize}
     * @param bstrValue the text itself. Signed are its bytes in the process locale's encoding, unchanged: no line end
     *     is converted, nothing is added
     * @return as for {@link #P1Sign}
     */
    public native String P1SignString(long handle, String bstrValue);

    /**
     * Makes a P7 signature of data given as Base64.
     *
     * @param handle from {@link #Initialize}
     * @param bstrValue the data's bytes in Base64, as for {@link #P1Sign}
     * @param bDetach 0: the signature contains the data. 1: it does not, and whoever verifies needs the data as well.
     *     As for {@code bIncludeCert}, any value whose low 32 bits are not 0 counts as 1
     * @param bIncludeCert 1: the signature contains the signer's certificate. 0: it does not, and whoever verifies
     *     needs the certificate as well
     * @return the signature, CMS SignedData in DER as Base64 in one line, {@code null} on failure. Among the signed
     *     attributes are the time of signing and the certificate's digest
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
     * Closes a signing object. Calls on it that other threads are in the middle of still finish.
     *
     * @param handle from {@link #Initialize}; not to be used afterwards
     * @return 0, or 1 on failure
     */
    public native long Finalize(long handle);

    /**
     * The version of the native library, 1.0.0.1, in a peculiar form that is part of its interface: the seven
     * characters {@code '1', U+0000, '.', U+0000, '0', U+0000, '.'}, the first half of the text with a U+0000 after
     * each character.
     *
     * @param handle not used; 0 will do
     * @return these seven characters, always
     */
    public native String GetSignVersion(long handle);

    /**
     * Returns {@code null}, always. For the certificate, make a P7 signature that includes it: the JDK's
     * {@link java.security.cert.CertificateFactory#generateCertificates} reads it from there.
     *
     * @param handle from {@link #Initialize}
     * @return {@code null}
     */
    public native String GetSignCert(long handle);

    /**
     * The number of the calling platform thread's last error on this handle.
     *
     * @param handle from {@link #Initialize}; or 0, which asks for the calling thread's last error that belongs to no
     *     handle, such as that of a failed {@link #Initialize}
     * @return a number of {@link VCTKError}; 0 when the thread's last call on this handle succeeded
     */
    public native long GetLastError(long handle);

    /**
     * The English text of the calling thread's last error on this handle, with details where there are any.
     *
     * @param handle from {@link #Initialize}
     * @return the text, {@code null} for handle 0
     */
    public native String GetLastErrorMessage(long handle);

    /**
     * The certificates that could sign: those in the store that are valid today, have their private key there and pass
     * all filters.
     *
     * @param handle from {@link #Initialize}
     * @return one record for each certificate, separated by CR LF; empty when there is none, {@code null} on failure. A
     *     record has seven fields separated by one blank: serial number and SHA-256 fingerprint in upper-case
     *     hexadecimal, the begin and the end of validity in UTC as in {@code 2026-11-21T05:00:00Z}, the key's algorithm
     *     ({@code RSA} or {@code EC}), subject and issuer. The names are RFC 4514 text in which blanks are written
     *     {@code \20}
     */
    public native String GetCertList(long handle);
}
