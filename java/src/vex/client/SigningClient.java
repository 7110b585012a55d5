package vex.client;

import java.io.IOException;
import java.io.InputStream;
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
 * Signs texts and data with the private key of a certificate from a store.
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
 * {@code signPkcs1} and {@code signDigest} make a bare signature: RSASSA-PKCS1-v1_5 with an RSA key, or RSASSA-PSS if
 * the client's digest or the certificate says so; ECDSA in DER with an EC key; RFC 8032 with an Ed25519 or Ed448 key.
 * {@link java.security.Signature} verifies all of them. {@code signCms} makes CMS SignedData in DER. The results are
 * bytes; {@link java.util.Base64} converts them to text.
 *
 * <h2>Text and bytes</h2>
 * Signing a text signs its bytes in the encoding of the <em>process locale</em> ({@code LC_ALL}, {@code LC_CTYPE} or
 * {@code LANG} when Java started): UTF-8 under a UTF-8 locale. A text with U+0000, with an unpaired surrogate or with a
 * character that the locale cannot encode is refused with a {@link SigningException}; it is never signed with such
 * characters replaced. Bytes are signed unchanged under every locale. Empty texts and empty data are refused.
 *
 * <h2>Threads</h2>
 * Any thread may call any method at any time. The client is immutable. Calls on one client run one after the other, so
 * threads that sign a lot are faster with a client each. An exception always tells the error of the call that threw it,
 * whatever other threads do.
 *
 * <h2>Closing</h2>
 * {@link #close} may be called at any time and more than once. Calls of other threads that are in progress finish
 * normally, and the last of them releases the store. Later calls throw {@link IllegalStateException} and call no native
 * code. A daemon thread releases clients that became unreachable without being closed, some time later.
 *
 * <p>Unless a method says otherwise, no argument may be {@code null}.
 */
public final class SigningClient implements AutoCloseable {
    final Session session;
    private final String digest;
    private final ContentSigner content;
    private final Reaper.Ticket ticket;

    private SigningClient(Session session, String digest) {
        this.session = session;
        this.digest = digest;
        content = new ContentSigner(session, digest);
        ticket = Reaper.register(this, session);
    }

    /**
     * Starts to build a client for the store with this URI.
     *
     * @param uri {@code demo:} for the user's demo store, {@code file:/path/keys.p12} or {@code pkcs11:token=Card}.
     *     Prefer {@link Builder#pinFile} or {@link Builder#pin} to a PIN in the URI. Trust a URI only as you would
     *     trust a program: it can name a PKCS #11 module, whose code then runs in this process
     * @return a new builder
     */
    public static Builder store(String uri) {
        return new Builder(Objects.requireNonNull(uri, "uri"));
    }

    /**
     * Starts to build a client for the store in a PKCS #12 or PEM file.
     *
     * @param file any path of the default file system; a relative one starts from the current directory
     * @return a new builder
     * @throws IllegalArgumentException if the path belongs to another file system
     */
    public static Builder file(Path file) {
        return new Builder(StoreText.ofFile(file));
    }

    /**
     * Makes a bare signature of a text.
     *
     * @param text the text; see above which texts are refused
     * @return a bare signature
     * @throws SigningException if it cannot be signed
     * @throws IllegalStateException if the client is closed
     */
    public byte[] signPkcs1(String text) throws SigningException {
        return session.signP1(digest, text);
    }

    /**
     * Makes a bare signature of data.
     *
     * @param data at least one byte, at most 402,653,181
     * @return a bare signature
     * @throws SigningException if it cannot be signed
     * @throws IllegalStateException if the client is closed
     */
    public byte[] signPkcs1(byte[] data) throws SigningException {
        return session.signP1(digest, data);
    }

    /**
     * Makes a bare signature of a digest that the caller has computed. <strong>It signs what it cannot see.</strong>
     *
     * @param value of the client's digest algorithm, SHA-256 if none is set
     * @return a signature of the data
     * @throws SigningException if it cannot be signed: also if it has another length than the algorithm's, if the
     *     toolkit does not sign digests, and with an Ed25519 or Ed448 key
     * @throws IllegalStateException if the client is closed
     */
    public byte[] signDigest(byte[] value) throws SigningException {
        return content.signDigest(value);
    }

    /**
     * Makes a CMS signature of a text.
     *
     * @param text the text; see above which texts are refused
     * @param options without options, the signature contains the text and no certificate
     * @return CMS SignedData in DER
     * @throws SigningException if it cannot be signed
     * @throws IllegalStateException if the client is closed
     */
    public byte[] signCms(String text, CmsOption... options) throws SigningException {
        return session.signP7(digest, text, toSet(options));
    }

    /**
     * Makes a CMS signature of data.
     *
     * @param data at least one byte, at most 402,653,181
     * @param options without options, the signature contains the data and no certificate
     * @return CMS SignedData in DER
     * @throws SigningException if it cannot be signed
     * @throws IllegalStateException if the client is closed
     */
    public byte[] signCms(byte[] data, CmsOption... options) throws SigningException {
        return session.signP7(digest, data, toSet(options));
    }

    /**
     * Makes a CMS signature of a file. A detached signature reads it once, in pieces, so it may have any size. One with
     * the content reads it twice and has it in memory once, so the limit is nearly 2 GiB. The data is collected, and
     * has at most 402,653,181 bytes, if the toolkit does not sign digests, if this Java does not have the digest
     * algorithm, and if a certificate that passes the filters has an Ed25519 or Ed448 key.
     *
     * @param file at least one byte
     * @param options without options, the signature contains the data and no certificate
     * @return CMS SignedData in DER
     * @throws IOException if the file cannot be read, or changes between the two times
     * @throws SigningException if it cannot be signed
     * @throws IllegalStateException if the client is closed
     */
    public byte[] signCms(Path file, CmsOption... options) throws IOException, SigningException {
        return content.sign(file, toSet(options));
    }

    /**
     * Makes a detached CMS signature of the rest of a stream, which is read like a file.
     *
     * @param stream at least one byte; it is read to its end and not closed
     * @param options one of them is {@link CmsOption#DETACHED}
     * @return CMS SignedData in DER
     * @throws IOException if the stream cannot be read
     * @throws SigningException if it cannot be signed
     * @throws IllegalArgumentException if the options do not include {@code DETACHED}
     * @throws IllegalStateException if the client is closed
     */
    public byte[] signCms(InputStream stream, CmsOption... options) throws IOException, SigningException {
        Set<CmsOption> set = toSet(options);
        if (!set.contains(CmsOption.DETACHED)) {
            throw new IllegalArgumentException("A stream is signed detached only; add CmsOption.DETACHED");
        }
        return content.sign(stream, set);
    }

    /**
     * Lists the certificates that could sign now: they are valid, have their private key, and pass all filters.
     *
     * @return an immutable list, which may be empty
     * @throws SigningException if the toolkit cannot list them
     * @throws IllegalStateException if the client is closed
     */
    public List<CertificateInfo> certificates() throws SigningException {
        return CertificateInfo.parseList(session.certificateList());
    }

    /** Closes the client; see above. */
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
     * Collects the settings of a client. A certificate has to pass all filters. If several certificates pass, the one
     * that stays valid longest signs. For one thread at a time.
     */
    public static final class Builder {
        private final String store;
        private final List<Filter> filters = new ArrayList<>();
        private Path pinFile;
        private Path chainFile;
        private char[] pin;
        private String digest;
        private boolean single;

        private Builder(String store) {
            this.store = store;
        }

        /**
         * Names the file that holds the PIN. This is the safest way: the PIN never becomes a Java object.
         *
         * @param file at most 4 KiB; one line end after the PIN is not part of it
         * @return this
         */
        public Builder pinFile(Path file) {
            pinFile = Objects.requireNonNull(file, "file");
            pin = null;
            return this;
        }

        /**
         * Sets the PIN itself. The builder copies it, and {@link #open} joins the copy to the store's URI and wipes it.
         * No exception and no {@link #toString} contains it. The caller wipes its own array.
         *
         * @param characters the PIN, without any escapes
         * @return this
         */
        public Builder pin(char[] characters) {
            pin = characters.clone();
            pinFile = null;
            return this;
        }

        /**
         * Names a file with certificates of issuers that the store does not have, for {@link CmsOption#INCLUDE_CHAIN}.
         *
         * @param file PEM or PKCS #12, at most 16 MiB
         * @return this
         */
        public Builder chainFile(Path file) {
            chainFile = Objects.requireNonNull(file, "file");
            return this;
        }

        /**
         * Sets the digest algorithm. The default is SHA-256.
         *
         * @param name an algorithm of the SHA-2 or SHA-3 family, for example {@code SHA-384}. With {@code /PSS} behind
         *     it, RSA keys sign with RSASSA-PSS, with the same digest in MGF1 and a salt as long as it. Ed25519 and
         *     Ed448 keys have their own digest
         * @return this
         * @throws IllegalArgumentException if the name begins with {@code prehashed:}; {@link #signDigest} does this
         */
        public Builder digest(String name) {
            if (name.regionMatches(true, 0, DigestName.PREHASHED, 0, DigestName.PREHASHED.length())) {
                throw new IllegalArgumentException("The client signs data; call signDigest to sign a digest");
            }
            digest = name;
            return this;
        }

        /**
         * Makes signing fail unless exactly one certificate passes the filters.
         *
         * @return this
         */
        public Builder singleCertificate() {
            single = true;
            return this;
        }

        /**
         * Filter: the RFC 4514 text of the issuer's name contains this part.
         *
         * @param part in upper or lower case
         * @return this
         */
        public Builder issuerContains(String part) {
            return add(Filter.issuerContains(part));
        }

        /**
         * Filter: the RFC 4514 text of the subject's name contains this part.
         *
         * @param part in upper or lower case
         * @return this
         */
        public Builder subjectContains(String part) {
            return add(Filter.subjectContains(part));
        }

        /**
         * Filter: the issuer has this name.
         *
         * @param name the whole name
         * @return this
         */
        public Builder issuer(X500Principal name) {
            return add(Filter.issuer(name));
        }

        /**
         * Filter: the subject has this name.
         *
         * @param name the whole name
         * @return this
         */
        public Builder subject(X500Principal name) {
            return add(Filter.subject(name));
        }

        /**
         * Filter: the certificate has this serial number.
         *
         * @param number the number as {@link CertificateInfo#serial} returns it; a few certificates have a negative one
         * @return this
         */
        public Builder serial(BigInteger number) {
            return add(Filter.serial(number));
        }

        /**
         * Filter: the SHA-256 digest of the certificate's DER form is this.
         *
         * @param sha256 64 hexadecimal digits in upper or lower case, with or without colons between pairs
         * @return this
         */
        public Builder fingerprint(String sha256) {
            return add(Filter.fingerprint(sha256));
        }

        /**
         * Filter: this certificate alone.
         *
         * @param certificate compared by its SHA-256 fingerprint
         * @return this
         * @throws CertificateEncodingException if the certificate has no DER form
         */
        public Builder certificate(X509Certificate certificate) throws CertificateEncodingException {
            return fingerprint(Certificates.fingerprint(certificate));
        }

        /**
         * Filter: the key has this algorithm.
         *
         * @param name as {@link CertificateInfo#keyAlgorithm} returns it
         * @return this
         */
        public Builder keyAlgorithm(String name) {
            return add(Filter.keyAlgorithm(name));
        }

        /**
         * Filter: the key has this size or a larger one.
         *
         * @param bits the size of the RSA modulus or of the curve's field; positive
         * @return this
         */
        public Builder keySizeAtLeast(int bits) {
            return add(Filter.keySizeAtLeast(bits));
        }

        /**
         * Filter: the certificate allows this key usage. A certificate without key usages allows all.
         *
         * @param usage the usage
         * @return this
         */
        public Builder allowsKeyUsage(KeyUsage usage) {
            return add(Filter.allowsKeyUsage(usage));
        }

        /**
         * Filter: the certificate names all of these key usages. A certificate without key usages does not pass.
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
         * Filter: the certificate is valid at this time as well as now.
         *
         * @param time the time; fractions of a second are ignored
         * @return this
         */
        public Builder validAt(Instant time) {
            return add(Filter.validAt(time));
        }

        /**
         * Filter: the certificate has this policy.
         *
         * @param oid a dotted OID
         * @return this
         */
        public Builder policy(String oid) {
            return add(Filter.policy(oid));
        }

        /**
         * Opens the store. The first call in a process loads the native library; see {@link vex.jni.TAVClientJNI}.
         *
         * @return a new client, which the caller closes
         * @throws SigningException if the store cannot be opened or a setting is refused. If no certificate passes the
         *     filters, opening succeeds and signing fails
         * @throws IllegalStateException if {@link #pin} was called and an earlier call of this method used the PIN
         */
        public SigningClient open() throws SigningException {
            Session session = Session.open(storeWithPin(), single, "chain=store");
            try {
                if (digest != null) {
                    session.setDigest(digest);
                }
                for (Filter filter : filters) {
                    session.addFilter(filter);
                }
                return new SigningClient(session, digest);
            } catch (SigningException | RuntimeException | Error e) {
                session.close();
                throw e;
            }
        }

        /** For people. Contains no PIN and no URI. */
        @Override
        public String toString() {
            return "SigningClient.Builder with " + filters.size() + " filters";
        }

        private Builder add(Filter filter) {
            filters.add(filter);
            return this;
        }

        private String storeWithChain() {
            if (chainFile == null) {
                return store;
            }
            String chain = StoreText.hasChain(store) ? store : StoreText.withAttribute(store, "chain=store");
            return StoreText.withChainFile(chain, chainFile);
        }

        private String storeWithPin() {
            String store = storeWithChain();
            if (pinFile != null) {
                return StoreText.withPinFile(store, pinFile);
            }
            if (pin == null) {
                return store;
            }
            if (pin.length > 0 && pin[0] == WIPED) {
                throw new IllegalStateException("An earlier call of open used the PIN and wiped it; call pin again");
            }
            try {
                return StoreText.withPin(store, pin);
            } finally {
                Arrays.fill(pin, WIPED);
            }
        }

        /** A PIN cannot contain this character. */
        private static final char WIPED = '\0';
    }
}
