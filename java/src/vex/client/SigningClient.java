package vex.client;

import java.io.IOException;
import java.io.InputStream;
import java.nio.file.Path;
import java.security.cert.X509Certificate;
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
 * otherwise. The results are bytes; {@link java.util.Base64} converts them to text.
 *
 * <h2>Text and bytes</h2>
 * Signing a text signs its bytes in the encoding of the <em>process locale</em> ({@code LC_ALL}, {@code LC_CTYPE} or
 * {@code LANG} when Java started): UTF-8 under a UTF-8 locale. A text with U+0000, with an unpaired surrogate or with a
 * character that the locale cannot encode is refused with a {@link SigningException}; it is never signed with such
 * characters replaced. Bytes are signed unchanged under every locale. Empty texts and empty data are refused.
 *
 * <h2>Threads</h2>
 * Any thread may call any method at any time. The client is immutable. As many calls as there are processors run at
 * once; further calls wait in the order of their arrival. If the toolkit cannot share an opened store, calls run one
 * after the other. An exception always tells the error of the call that threw it, whatever other threads do. All this
 * holds for virtual threads too: they wait without their carriers, and keep them while they sign.
 *
 * <h2>Closing</h2>
 * {@link #close} may be called at any time and more than once. Calls of other threads that are in progress finish
 * normally, and the last of them releases the store. Later calls throw {@link IllegalStateException} and call no native
 * code. A daemon thread releases clients that became unreachable without being closed, some time later.
 */
public final class SigningClient implements AutoCloseable {
    final Session session;
    private final Selection selection;
    private final ContentSigner content;
    private final SignerChoice choice;
    private final Reaper.Ticket ticket;

    SigningClient(Session session, Selection selection, boolean single, String digest) {
        this.session = session;
        this.selection = selection;
        content = new ContentSigner(session, selection, digest);
        choice = new SignerChoice(session, selection, single, digest);
        ticket = Reaper.register(this, session);
    }

    /**
     * Starts to build a client for the store with this URI.
     *
     * @param uri {@code demo:} for the user's demo store, {@code file:/path/keys.p12} or {@code pkcs11:token=Card}.
     *     Prefer {@link SigningClientBuilder#pinFile} or {@link SigningClientBuilder#pin} to a PIN in the URI. Trust a
     *     URI only as you would trust a program: it can name a PKCS #11 module, whose code then runs in this process
     * @return a new builder
     */
    public static SigningClientBuilder store(String uri) {
        return new SigningClientBuilder(Objects.requireNonNull(uri, "uri"));
    }

    /**
     * Starts to build a client for the store in a PKCS #12 or PEM file.
     *
     * @param file any path of the default file system; a relative one starts from the current directory
     * @return a new builder
     * @throws IllegalArgumentException if the path belongs to another file system
     */
    public static SigningClientBuilder file(Path file) {
        return new SigningClientBuilder(StoreText.ofFile(Objects.requireNonNull(file, "file")));
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
        return content.signRaw(Objects.requireNonNull(text, "text"));
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
        return content.signRaw(Objects.requireNonNull(data, "data"));
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
        return content.signDigest(Objects.requireNonNull(value, "value"));
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
        return content.sign(Objects.requireNonNull(text, "text"), CmsForm.detached(options));
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
        return content.sign(Objects.requireNonNull(data, "data"), CmsForm.detached(options));
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
        return content.sign(Objects.requireNonNull(file, "file"), CmsForm.detached(options));
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
        return content.sign(Objects.requireNonNull(stream, "stream"), CmsForm.detached(options));
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
        return content.sign(Objects.requireNonNull(text, "text"), CmsForm.attached(options));
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
        return content.sign(Objects.requireNonNull(data, "data"), CmsForm.attached(options));
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
        return content.sign(Objects.requireNonNull(file, "file"), CmsForm.attached(options));
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
        return choice.sign(Objects.requireNonNull(request, "request"));
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
        return choice.chain()[0];
    }

    /**
     * Lists the certificates that could sign now: they are valid, have their private key, and pass all filters.
     *
     * @return an immutable list, which may be empty
     * @throws SigningException if the toolkit cannot list them
     * @throws IllegalStateException if the client is closed
     */
    public List<CertificateInfo> certificates() throws SigningException {
        return session.certificates(selection);
    }

    /** Closes the client; see above. */
    @Override
    public void close() {
        ticket.close();
    }
}
