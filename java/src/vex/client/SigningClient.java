package vex.client;

import java.io.IOException;
import java.io.InputStream;
import java.nio.file.Path;
import java.security.cert.X509Certificate;
import java.util.Arrays;
import java.util.List;
import java.util.Objects;

/**
 * Signs texts and data with the private key of a certificate from a store.
 *
 * <pre>{@code
 * try (SigningClient client = SigningClient.file(Paths.get("/etc/app/keys.p12"))
 *         .pinFile(Paths.get("/etc/app/pin"))
 *         .keyAlgorithm(KeyAlgorithm.RSA)
 *         .open()) {
 *     byte[] cms = client.signCmsDetached("I owe you 100 euros.");
 * }
 * }</pre>
 *
 * <h2>Signatures</h2>
 * {@code signRaw} and {@code signDigest} make a bare signature: RSASSA-PKCS1-v1_5 with an RSA key, or RSASSA-PSS if
 * the client or the certificate says so; ECDSA in DER with an EC key; RFC 8032 with an Ed25519 or Ed448 key.
 * {@link java.security.Signature} verifies all of them. {@code signCmsDetached} and {@code signCmsAttached} make CMS
 * SignedData in DER, without and with the content. It contains the signer's certificate unless the options say
 * otherwise. The results are bytes; {@link java.util.Base64} converts them to text. {@link #sign} makes any of these,
 * and tells with which certificate and algorithm; {@link #signer} tells who would sign now.
 *
 * <h2>Text and bytes</h2>
 * Signing a text signs its bytes in the encoding of the <em>process locale</em> ({@code LC_ALL}, {@code LC_CTYPE} or
 * {@code LANG} when Java started): UTF-8 under a UTF-8 locale. A text with U+0000, with an unpaired surrogate or with a
 * character that the locale cannot encode is refused with a {@link SigningException}; it is never signed with such
 * characters replaced. Bytes are signed unchanged under every locale. Empty texts and empty data are refused, and texts
 * of more than 536,870,910 characters (UTF-16).
 *
 * <h2>Time stamps</h2>
 * With {@link Builder#timestamp}, every CMS signature contains a time stamp of an authority (RFC 3161, as the unsigned
 * attribute of RFC 5126), which shows that it was made while the certificate was valid. A signature that cannot be
 * stamped is not returned: {@link SigningException.Reason#TIMESTAMP}. Such a client makes no bare signatures, which
 * have no place for a stamp.
 *
 * <h2>Threads</h2>
 * Any thread may call any method at any time. The client is immutable. As many calls as there are processors run at
 * once; further calls wait in the order of their arrival. If the toolkit cannot share an opened store, calls run one
 * after the other. An exception always tells the error of the call that threw it, whatever other threads do. All this
 * holds for virtual threads too: they wait without their carriers, and keep them while they sign.
 *
 * <h2>Errors</h2>
 * A {@link SigningException} has a {@link SigningException#reason} for the program and a message for people, which
 * names the thing: a file, a module, a filter, what is wrong with the certificates. A PIN is never in it.
 *
 * <h2>Closing</h2>
 * {@link #close} may be called at any time and more than once. Calls of other threads that are in progress finish
 * normally, and the last of them releases the store. Later calls throw {@link IllegalStateException} and call no native
 * code. A daemon thread releases clients that became unreachable without being closed, some time later.
 */
public final class SigningClient implements AutoCloseable {
    final Session session;
    final StampStore stamps;  // null: signatures are not stamped
    private final ClientCalls calls;
    private final Reaper.Ticket ticket;

    private SigningClient(Session session, Selection selection, boolean single, String digest, StampStore stamps,
            TimestampSource source) {
        Stamper stamper = stamps == null ? null : new Stamper(stamps, source);
        this.session = session;
        this.stamps = stamps;
        ClientGate gate = new ClientGate(session, stamps);
        calls = new ClientCalls(this, gate, session, selection, new ContentSigner(session, selection, digest, stamper),
            new SignerChoice(session, selection, single, digest, stamper));
        // The source may refer to this client, so the reaper does not get it.
        ticket = Reaper.register(this, gate);
    }

    /**
     * Starts to build a client for the store with this URI.
     *
     * @param uri {@code demo:} for the user's demo store, {@code file:/path/keys.p12} or {@code pkcs11:token=Card}.
     *     Prefer {@link Builder#pinFile} or {@link Builder#pin} to a PIN in the URI. Trust a
     *     URI only as you would trust a program: it can name a PKCS #11 module, whose code then runs in this process
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
        return new Builder(StoreText.ofFile(Objects.requireNonNull(file, "file")));
    }

    /**
     * Makes a bare signature of a text.
     *
     * @param text the text; see above which texts are refused
     * @return a bare signature
     * @throws SigningException if it cannot be signed
     * @throws IllegalStateException if the client is closed
     */
    public byte[] signRaw(String text) throws SigningException {
        return calls.signRaw(Objects.requireNonNull(text, "text"));
    }

    /**
     * Makes a bare signature of data.
     *
     * @param data at least one byte, at most 402,653,181
     * @return a bare signature
     * @throws SigningException if it cannot be signed
     * @throws IllegalStateException if the client is closed
     */
    public byte[] signRaw(byte[] data) throws SigningException {
        return calls.signRaw(Objects.requireNonNull(data, "data"));
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
        return calls.signDigest(Objects.requireNonNull(value, "value"));
    }

    /**
     * Makes a CMS signature of a text, without the text.
     *
     * @param text the text; see above which texts are refused
     * @param options which certificates the signature contains; without options, the signer's
     * @return CMS SignedData in DER
     * @throws SigningException if it cannot be signed
     * @throws IllegalArgumentException if the options exclude each other
     * @throws IllegalStateException if the client is closed
     */
    public byte[] signCmsDetached(String text, CmsOption... options) throws SigningException {
        return calls.sign(Objects.requireNonNull(text, "text"), CmsForm.detached(options));
    }

    /**
     * Makes a CMS signature of data, without the data.
     *
     * @param data at least one byte, at most 402,653,181
     * @param options which certificates the signature contains; without options, the signer's
     * @return CMS SignedData in DER
     * @throws SigningException if it cannot be signed
     * @throws IllegalArgumentException if the options exclude each other
     * @throws IllegalStateException if the client is closed
     */
    public byte[] signCmsDetached(byte[] data, CmsOption... options) throws SigningException {
        return calls.sign(Objects.requireNonNull(data, "data"), CmsForm.detached(options));
    }

    /**
     * Makes a CMS signature of a file, without the content. It reads the file once, in pieces, so the file may have any
     * size. The data is collected, and has at most 402,653,181 bytes, if the toolkit does not sign digests, if this
     * Java does not have the digest algorithm, and if a certificate that passes the filters has an Ed25519 or Ed448
     * key.
     *
     * @param file at least one byte
     * @param options which certificates the signature contains; without options, the signer's
     * @return CMS SignedData in DER
     * @throws IOException if the file cannot be read
     * @throws SigningException if it cannot be signed
     * @throws IllegalArgumentException if the options exclude each other
     * @throws IllegalStateException if the client is closed
     */
    public byte[] signCmsDetached(Path file, CmsOption... options) throws IOException, SigningException {
        return calls.sign(Objects.requireNonNull(file, "file"), CmsForm.detached(options));
    }

    /**
     * Makes a CMS signature of the rest of a stream, which is read like a file.
     *
     * @param stream at least one byte; it is read to its end and not closed
     * @param options which certificates the signature contains; without options, the signer's
     * @return CMS SignedData in DER
     * @throws IOException if the stream cannot be read
     * @throws SigningException if it cannot be signed
     * @throws IllegalArgumentException if the options exclude each other
     * @throws IllegalStateException if the client is closed
     */
    public byte[] signCmsDetached(InputStream stream, CmsOption... options) throws IOException, SigningException {
        return calls.sign(Objects.requireNonNull(stream, "stream"), CmsForm.detached(options));
    }

    /**
     * Makes a CMS signature that contains the text.
     *
     * @param text the text; see above which texts are refused
     * @param options which certificates the signature contains; without options, the signer's
     * @return CMS SignedData in DER
     * @throws SigningException if it cannot be signed
     * @throws IllegalArgumentException if the options exclude each other
     * @throws IllegalStateException if the client is closed
     */
    public byte[] signCmsAttached(String text, CmsOption... options) throws SigningException {
        return calls.sign(Objects.requireNonNull(text, "text"), CmsForm.attached(options));
    }

    /**
     * Makes a CMS signature that contains the data.
     *
     * @param data at least one byte, at most 402,653,181
     * @param options which certificates the signature contains; without options, the signer's
     * @return CMS SignedData in DER
     * @throws SigningException if it cannot be signed
     * @throws IllegalArgumentException if the options exclude each other
     * @throws IllegalStateException if the client is closed
     */
    public byte[] signCmsAttached(byte[] data, CmsOption... options) throws SigningException {
        return calls.sign(Objects.requireNonNull(data, "data"), CmsForm.attached(options));
    }

    /**
     * Makes a CMS signature that contains the content of a file. It reads the file twice and has it in memory once, in
     * the result, so the limit is nearly 2 GiB. The data is collected in the cases that
     * {@link #signCmsDetached(Path, CmsOption...)} names, and if the file is no regular one, such as a pipe.
     *
     * @param file at least one byte
     * @param options which certificates the signature contains; without options, the signer's
     * @return CMS SignedData in DER
     * @throws IOException if the file cannot be read, or changes between the two times
     * @throws SigningException if it cannot be signed
     * @throws IllegalArgumentException if the options exclude each other
     * @throws IllegalStateException if the client is closed
     */
    public byte[] signCmsAttached(Path file, CmsOption... options) throws IOException, SigningException {
        return calls.sign(Objects.requireNonNull(file, "file"), CmsForm.attached(options));
    }

    /**
     * Makes a signature and tells who made it. Takes a little longer than the other methods, because it asks the
     * toolkit for the certificate first. With a toolkit that does not list certificates, it also makes a signature that
     * only carries the certificate.
     *
     * @param request what to sign, and in which form
     * @return the signature, the certificate that made it, and the algorithm
     * @throws IOException if the request's file or stream cannot be read
     * @throws SigningException if it cannot be signed
     * @throws IllegalStateException if the client is closed
     */
    public SigningResult sign(SigningRequest request) throws IOException, SigningException {
        return calls.sign(Objects.requireNonNull(request, "request"));
    }

    /**
     * Returns the certificate that would sign now: of those that pass the filters, the one that stays valid longest.
     * With a toolkit that does not list certificates, this makes a signature that only carries the certificate.
     *
     * @return the certificate; a later signature may have another one if this one expires
     * @throws SigningException as a signature would: if no certificate passes the filters, or several where one alone
     *     is wanted; also if Java cannot read the certificate
     * @throws IllegalStateException if the client is closed
     */
    public X509Certificate signer() throws SigningException {
        return calls.signer();
    }

    /**
     * Lists the valid certificates that pass all filters and whose key is there, for signing and not too short.
     *
     * @return an immutable list, which may be empty
     * @throws SigningException if the toolkit cannot list them
     * @throws IllegalStateException if the client is closed
     */
    public List<CertificateInfo> certificates() throws SigningException {
        return calls.certificates();
    }

    /** Closes the client; see above. */
    @Override
    public void close() {
        ticket.close();
    }

    /**
     * Collects the settings of a client, in any order. If several certificates pass all filters, the one that stays
     * valid longest signs. For one thread at a time.
     */
    public static final class Builder extends CertificateFilters<Builder> {
        /** A PIN cannot contain this character. */
        private static final char WIPED = '\0';

        private final String store;
        private Path pinFile;
        private Path chainFile;
        private char[] pin;
        private String digest;  // null: the toolkit's default
        private TimestampSource timestampSource;
        private Path timestampAuthority;
        private boolean pss;
        private boolean single;

        private Builder(String store) {
            this.store = store;
        }

        /**
         * Names the file that holds the PIN. This is the safest way: the PIN never becomes a Java object.
         *
         * @param file at most 4 KiB; one line end after the PIN is not part of it
         * @return this
         * @throws IllegalArgumentException if the path belongs to another file system than the default one
         */
        public Builder pinFile(Path file) {
            pinFile = StoreText.requireDefaultFileSystem(Objects.requireNonNull(file, "file"));
            pin = null;
            return this;
        }

        /**
         * Sets the PIN itself. The builder copies it, and {@link #open} joins the copy to the store's URI and wipes it.
         * No exception and no {@link #toString} contains it. The caller wipes its own array.
         *
         * @param characters the PIN, without any escapes
         * @return this
         * @throws IllegalArgumentException if the array has U+0000, as where it is longer than the PIN or was wiped
         */
        public Builder pin(char[] characters) {
            StoreText.requirePin(Objects.requireNonNull(characters, "characters"));
            pin = characters.clone();
            pinFile = null;
            return this;
        }

        /**
         * Names a file with certificates of issuers that the store does not have, for {@link CmsOption#INCLUDE_CHAIN}.
         *
         * @param file PEM or PKCS #12, at most 16 MiB
         * @return this
         * @throws IllegalArgumentException if the path belongs to another file system than the default one
         */
        public Builder chainFile(Path file) {
            chainFile = StoreText.requireDefaultFileSystem(Objects.requireNonNull(file, "file"));
            return this;
        }

        /**
         * Sets the digest algorithm. Ed25519 and Ed448 keys have their own.
         *
         * @param algorithm SHA-256 if this method is not called
         * @return this
         */
        public Builder digest(Digest algorithm) {
            return digest(Objects.requireNonNull(algorithm, "algorithm").toString());
        }

        /**
         * Sets the digest algorithm by the toolkit's name, which may be one that {@link Digest} does not have.
         *
         * @param name for example {@code SHA-384}
         * @return this
         * @throws IllegalArgumentException if the name begins with {@code prehashed:}; {@link SigningClient#signDigest}
         *     does this
         */
        public Builder digest(String name) {
            Objects.requireNonNull(name, "name");
            if (name.regionMatches(true, 0, Digest.PREHASHED, 0, Digest.PREHASHED.length())) {
                throw new IllegalArgumentException("The client signs data; call signDigest to sign a digest");
            }
            digest = name;
            return this;
        }

        /**
         * Makes RSA keys sign with RSASSA-PSS: with the client's digest algorithm, the same in MGF1, and a salt as
         * long as the digest. Without this call, only keys whose certificate demands it do so. Other keys sign as
         * always.
         *
         * @return this
         */
        public Builder pss() {
            pss = true;
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
         * Has every CMS signature stamped with the time. Bare signatures are then refused.
         *
         * @param source where stamps come from, for example {@link TimestampSource#http}
         * @return this
         */
        public Builder timestamp(TimestampSource source) {
            timestampSource = Objects.requireNonNull(source, "source");
            return this;
        }

        /**
         * Names a file with the certificates that time stamps have to lead to. Without this call, everything about a
         * stamp is checked except who issued the authority's certificate. Goes with {@link #timestamp}.
         *
         * @param certificates PEM, the authority's roots
         * @return this
         * @throws IllegalArgumentException if the path belongs to another file system than the default one
         */
        public Builder timestampAuthority(Path certificates) {
            timestampAuthority =
                StoreText.requireDefaultFileSystem(Objects.requireNonNull(certificates, "certificates"));
            return this;
        }

        /**
         * Opens the store. The first call in a process loads the native library; see {@link vex.jni.TAVClientJNI}.
         *
         * @return a new client, which the caller closes
         * @throws SigningException if the store cannot be opened or a setting is refused. If no certificate passes the
         *     filters, opening succeeds and signing fails. Also if stamps are wanted that the toolkit cannot add
         * @throws IllegalArgumentException if the PIN has an unpaired surrogate
         * @throws IllegalStateException if {@link #pin} was called and an earlier call of this method used the PIN, if
         *     {@link #timestampAuthority} was called alone, or {@link #timestamp} for a URI with {@code tsa=}
         */
        public SigningClient open() throws SigningException {
            if (timestampSource != null || timestampAuthority != null) {
                Stamper.requireOneWay(store, timestampSource, timestampAuthority);
            }
            Session session = Session.open(storeWithPin(), single, "chain=store");
            try {
                String digest = digestName();
                Selection selection = selection();
                session.check(selection, digest);
                StampStore stamps = timestampSource == null ? null : StampStore.open(timestampAuthority);
                return new SigningClient(session, selection, single, digest, stamps, timestampSource);
            } catch (SigningException | RuntimeException | Error e) {
                session.close();
                throw e;
            }
        }

        /** For people. Contains no PIN and no URI. */
        @Override
        public String toString() {
            return "SigningClient.Builder with " + selection().filters().size() + " filters";
        }

        @Override
        Builder self() {
            return this;
        }

        /** As the toolkit takes it; null for its default. */
        private String digestName() {
            if (!pss) {
                return digest;
            }
            String name = Digest.orDefault(digest);
            return Digest.isPss(name) ? name : name + Digest.PSS;
        }

        private String storeWithChain() throws SigningException {
            if (chainFile == null) {
                return store;
            }
            StoreText.requireNoChainFile(store);
            String chain = StoreText.hasChain(store) ? store : StoreText.withAttribute(store, "chain=store");
            return StoreText.withChainFile(chain, chainFile);
        }

        private String storeWithPin() throws SigningException {
            String store = storeWithChain();
            if (pinFile != null) {
                StoreText.requireNoPin(store);
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
    }
}
