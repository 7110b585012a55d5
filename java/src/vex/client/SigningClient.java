package vex.client;

import java.math.BigInteger;
import java.nio.file.Path;
import java.security.cert.CertificateEncodingException;
import java.security.cert.X509Certificate;
import java.time.Instant;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.EnumSet;
import java.util.List;
import java.util.Objects;
import java.util.Set;
import javax.security.auth.x500.X500Principal;

/**
 * Signs texts and data with the private key of a certificate out of a store.
 *
 * <pre>{@code
 * try (SigningClient client = SigningClient.file(Paths.get("/etc/app/keys.p12"))
 *         .pinFile(Paths.get("/etc/app/pin"))
 *         .keyAlgorithm("RSA")
 *         .open()) {
 *     byte[] cms = client.signCms("I owe you 100 euros.", CmsOption.DETACHED, CmsOption.INCLUDE_CERTIFICATE);
 * }
 * }</pre>
 *
 * <h2>Signatures</h2>
 * {@code signPkcs1} makes the bare signature: RSASSA-PKCS1-v1_5, or with an EC key ECDSA in DER, which
 * {@link java.security.Signature} verifies. {@code signCms} makes CMS SignedData in DER. All come as bytes;
 * {@link java.util.Base64} makes text of them.
 *
 * <h2>Text and bytes</h2>
 * A text is signed as its bytes in the encoding of the <em>process locale</em> ({@code LC_ALL}, {@code LC_CTYPE} or
 * {@code LANG} when Java started): UTF-8 under a UTF-8 locale. A text that cannot be carried whole (a character that
 * the locale does not have, U+0000, half of a surrogate pair) is refused with a {@link SigningException}; nothing else
 * is ever signed in its place. Bytes are signed as they are under every locale. Empty texts and empty data are refused.
 *
 * <h2>Threads</h2>
 * Any thread may call any method at any time. The client is immutable; its calls run one after the other inside the
 * toolkit, so threads that sign a lot are faster with a client each. An exception tells the error of the call that
 * threw it, whatever other threads do.
 *
 * <h2>Closing</h2>
 * {@link #close} may be called at any time and more than once. Calls that other threads have under way finish normally,
 * and the last of them releases the store; later calls throw {@link IllegalStateException} and reach no native code. A
 * client that became unreachable without having been closed is released by a daemon thread some time afterwards.
 */
public final class SigningClient implements AutoCloseable {
    final Session session;
    private final Reaper.Ticket ticket;

    private SigningClient(Session session) {
        this.session = session;
        ticket = Reaper.register(this, session);
    }

    /**
     * Begins with a store by its URI.
     *
     * @param uri {@code demo:} for the user's demo store, {@code file:/path/keys.p12} or {@code pkcs11:token=Card}, as
     *     the toolkit reads it. Prefer {@link Builder#pinFile} or {@link Builder#pin} to a PIN in it. It is as trusted
     *     as a program: it can name a PKCS #11 module, whose code then runs in this process
     * @return a builder for it
     */
    public static Builder store(String uri) {
        return new Builder(Objects.requireNonNull(uri, "uri"));
    }

    /**
     * Begins with a store in a PKCS #12 or PEM file.
     *
     * @param file of any name; a relative one counts from the current directory
     * @return a builder for it
     * @throws IllegalArgumentException if it is a path of another file system than the host's
     */
    public static Builder file(Path file) {
        return new Builder(StoreText.ofFile(file));
    }

    /**
     * Signs a text, without CMS around the signature.
     *
     * @param text see above
     * @return RSASSA-PKCS1-v1_5, or ECDSA in DER
     * @throws SigningException if it cannot be signed
     * @throws IllegalStateException if the client is closed
     */
    public byte[] signPkcs1(String text) throws SigningException {
        return session.signP1(text);
    }

    /**
     * Signs data, without CMS around the signature.
     *
     * @param data at most 402,653,181 bytes
     * @return RSASSA-PKCS1-v1_5, or ECDSA in DER
     * @throws SigningException if it cannot be signed
     * @throws IllegalStateException if the client is closed
     */
    public byte[] signPkcs1(byte[] data) throws SigningException {
        return session.signP1(data);
    }

    /**
     * Makes a CMS signature of a text.
     *
     * @param text see above
     * @param options without any, the signature contains the text and no certificate
     * @return CMS SignedData in DER
     * @throws SigningException if it cannot be signed
     * @throws IllegalStateException if the client is closed
     */
    public byte[] signCms(String text, CmsOption... options) throws SigningException {
        Set<CmsOption> set = toSet(options);
        return session.signP7(text, set.contains(CmsOption.DETACHED), set.contains(CmsOption.INCLUDE_CERTIFICATE));
    }

    /**
     * Makes a CMS signature of data.
     *
     * @param data at most 402,653,181 bytes
     * @param options without any, the signature contains the data and no certificate
     * @return CMS SignedData in DER
     * @throws SigningException if it cannot be signed
     * @throws IllegalStateException if the client is closed
     */
    public byte[] signCms(byte[] data, CmsOption... options) throws SigningException {
        Set<CmsOption> set = toSet(options);
        return session.signP7(data, set.contains(CmsOption.DETACHED), set.contains(CmsOption.INCLUDE_CERTIFICATE));
    }

    /**
     * The certificates that could sign now: valid today, with their private key, and past all filters.
     *
     * @return an immutable list, which may be empty
     * @throws SigningException if the toolkit cannot tell
     * @throws IllegalStateException if the client is closed
     */
    public List<CertificateInfo> certificates() throws SigningException {
        return CertificateInfo.parseList(session.certificateList());
    }

    /** Releases the store and its keys; see above. */
    @Override
    public void close() {
        ticket.close();
    }

    private static Set<CmsOption> toSet(CmsOption... options) {
        Set<CmsOption> set = EnumSet.noneOf(CmsOption.class);
        set.addAll(Arrays.asList(options));
        return set;
    }

    /**
     * What a client is to be like. Every filter narrows the choice: a certificate has to pass all of them. Of those
     * that do, the one that stays valid longest signs. Not for several threads at once.
     */
    public static final class Builder {
        private final String store;
        private final List<Filter> filters = new ArrayList<>();
        private Path pinFile;
        private char[] pin;
        private String digest;
        private boolean single;

        private Builder(String store) {
            this.store = store;
        }

        /**
         * The PIN is in a file. This is the best way to give one: the PIN never becomes a Java object.
         *
         * @param file of at most 4 KiB; one line end behind the PIN is not part of it
         * @return this
         */
        public Builder pinFile(Path file) {
            pinFile = Objects.requireNonNull(file, "file");
            pin = null;
            return this;
        }

        /**
         * The PIN itself. It is copied, joined to the store's URI only inside {@link #open}, and never told by an
         * exception or {@link #toString}; {@code open} wipes the copy. The caller wipes its own.
         *
         * @param characters the PIN as it is, nothing in it escaped
         * @return this
         */
        public Builder pin(char[] characters) {
            pin = characters.clone();
            pinFile = null;
            return this;
        }

        /**
         * The digest algorithm, SHA-256 unless this is called.
         *
         * @param name of the SHA-2 or SHA-3 family, for example {@code SHA-384}
         * @return this
         */
        public Builder digest(String name) {
            digest = Objects.requireNonNull(name, "name");
            return this;
        }

        /**
         * Signing fails unless exactly one certificate passes the filters.
         *
         * @return this
         */
        public Builder singleCertificate() {
            single = true;
            return this;
        }

        /**
         * Filter: the issuer's name as RFC 4514 text contains this.
         *
         * @param part in any case
         * @return this
         */
        public Builder issuerContains(String part) {
            return add(Filter.issuerContains(part));
        }

        /**
         * Filter: the subject's name as RFC 4514 text contains this.
         *
         * @param part in any case
         * @return this
         */
        public Builder subjectContains(String part) {
            return add(Filter.subjectContains(part));
        }

        /**
         * Filter: this is the issuer, compared as a name.
         *
         * @param name the whole name
         * @return this
         */
        public Builder issuer(X500Principal name) {
            return add(Filter.issuer(name));
        }

        /**
         * Filter: this is the subject, compared as a name.
         *
         * @param name the whole name
         * @return this
         */
        public Builder subject(X500Principal name) {
            return add(Filter.subject(name));
        }

        /**
         * Filter: this is the serial number.
         *
         * @param number as {@link CertificateInfo#serial} tells it; negative for the few certificates that have such a
         *     number
         * @return this
         */
        public Builder serial(BigInteger number) {
            return add(Filter.serial(number));
        }

        /**
         * Filter: this is the SHA-256 digest of the certificate's DER.
         *
         * @param sha256 64 hexadecimal digits of any case; colons may stand between pairs
         * @return this
         */
        public Builder fingerprint(String sha256) {
            return add(Filter.fingerprint(sha256));
        }

        /**
         * Filter: this is the certificate.
         *
         * @param certificate compared by its SHA-256 fingerprint
         * @return this
         * @throws CertificateEncodingException if the certificate has no DER form
         */
        public Builder certificate(X509Certificate certificate) throws CertificateEncodingException {
            return fingerprint(Certificates.fingerprint(certificate));
        }

        /**
         * Filter: the key's algorithm.
         *
         * @param name {@code RSA} or {@code EC}
         * @return this
         */
        public Builder keyAlgorithm(String name) {
            return add(Filter.keyAlgorithm(name));
        }

        /**
         * Filter: the key has this size or a larger one.
         *
         * @param bits of the RSA modulus or of the curve's field
         * @return this
         */
        public Builder keySizeAtLeast(int bits) {
            return add(Filter.keySizeAtLeast(bits));
        }

        /**
         * Filter: the certificate allows this key usage. One that restricts none passes.
         *
         * @param usage the usage
         * @return this
         */
        public Builder allowsKeyUsage(KeyUsage usage) {
            return add(Filter.allowsKeyUsage(usage));
        }

        /**
         * Filter: the certificate names all of these key usages. One that restricts none does not pass.
         *
         * @param usages at least one
         * @return this
         */
        public Builder keyUsages(KeyUsage... usages) {
            return add(Filter.keyUsages(usages));
        }

        /**
         * Filter: the certificate names all of these extended key usages.
         *
         * @param usages at least one; dotted OIDs, or the short names {@code serverAuth}, {@code clientAuth},
         *     {@code codeSigning}, {@code emailProtection}, {@code timeStamping} and {@code OCSPSigning}
         * @return this
         */
        public Builder extendedKeyUsages(String... usages) {
            return add(Filter.extendedKeyUsages(usages));
        }

        /**
         * Filter: the certificate is valid at this time too, besides now.
         *
         * @param time fractions of a second do not count
         * @return this
         */
        public Builder validAt(Instant time) {
            return add(Filter.validAt(time));
        }

        /**
         * Filter: this is among the certificate's policies.
         *
         * @param oid a dotted OID
         * @return this
         */
        public Builder policy(String oid) {
            return add(Filter.policy(oid));
        }

        /**
         * Opens the store. The first time in a process, this loads the native library; see
         * {@link vex.jni.TAVClientJNI}.
         *
         * @return a client to be closed by the caller
         * @throws SigningException if the store cannot be opened or a setting is refused. That no certificate passes
         *     the filters shows when signing
         * @throws IllegalStateException if {@link #pin} was given and an earlier call has used it up
         */
        public SigningClient open() throws SigningException {
            Session session = Session.open(storeWithPin(), single);
            try {
                if (digest != null) {
                    session.setDigest(digest);
                }
                for (Filter filter : filters) {
                    session.addFilter(filter);
                }
                return new SigningClient(session);
            } catch (SigningException | RuntimeException | Error e) {
                session.close();
                throw e;
            }
        }

        /** For people; holds no PIN and no URI. */
        @Override
        public String toString() {
            return "SigningClient.Builder with " + filters.size() + " filters";
        }

        private Builder add(Filter filter) {
            filters.add(filter);
            return this;
        }

        private String storeWithPin() {
            if (pinFile != null) {
                return StoreText.withPinFile(store, pinFile);
            }
            if (pin == null) {
                return store;
            }
            if (pin.length > 0 && pin[0] == WIPED) {
                throw new IllegalStateException("The PIN was used by an earlier call of open and has been wiped");
            }
            try {
                return StoreText.withPin(store, pin);
            } finally {
                Arrays.fill(pin, WIPED);
            }
        }

        /** No PIN begins with it, for none can contain it. */
        private static final char WIPED = '\0';
    }
}
