package vex.client;

import java.io.IOException;
import java.io.InputStream;
import java.nio.file.Path;
import java.util.Objects;

/**
 * What {@link SigningClient#sign} signs, and in which form. Any thread may use it. Arrays and streams are not copied:
 * do not change them before the signature is made. A request with a stream is good for one signature.
 */
public final class SigningRequest {
    private final Work work;
    /** Whether the work can be done again after it failed. */
    private final boolean repeatable;
    private final boolean cms;

    /** Makes the signature. */
    interface Work {
        byte[] sign(ContentSigner signer) throws IOException, SigningException;
    }

    private SigningRequest(Work work, boolean repeatable, boolean cms) {
        this.work = work;
        this.repeatable = repeatable;
        this.cms = cms;
    }

    private static SigningRequest raw(Work work) {
        return new SigningRequest(work, true, false);
    }

    private static SigningRequest cms(Work work) {
        return new SigningRequest(work, true, true);
    }

    /**
     * A bare signature of a text, as {@link SigningClient#signRaw(String)} makes it.
     *
     * @param text the text
     * @return a new request
     */
    public static SigningRequest raw(String text) {
        Objects.requireNonNull(text, "text");
        return raw(signer -> signer.signRaw(text));
    }

    /**
     * A bare signature of data, as {@link SigningClient#signRaw(byte[])} makes it.
     *
     * @param data at least one byte
     * @return a new request
     */
    public static SigningRequest raw(byte[] data) {
        Objects.requireNonNull(data, "data");
        return raw(signer -> signer.signRaw(data));
    }

    /**
     * A bare signature of a digest, as {@link SigningClient#signDigest} makes it.
     *
     * @param value of the client's digest algorithm
     * @return a new request
     */
    public static SigningRequest digest(byte[] value) {
        Objects.requireNonNull(value, "value");
        return raw(signer -> signer.signDigest(value));
    }

    /**
     * A CMS signature of a text, without the text.
     *
     * @param text the text
     * @param options which certificates the signature contains; without options, the signer's
     * @return a new request
     * @throws IllegalArgumentException if the options exclude each other
     */
    public static SigningRequest cmsDetached(String text, CmsOption... options) {
        Objects.requireNonNull(text, "text");
        CmsForm form = CmsForm.detached(options);
        return cms(signer -> signer.sign(text, form));
    }

    /**
     * A CMS signature of data, without the data.
     *
     * @param data at least one byte
     * @param options which certificates the signature contains; without options, the signer's
     * @return a new request
     * @throws IllegalArgumentException if the options exclude each other
     */
    public static SigningRequest cmsDetached(byte[] data, CmsOption... options) {
        Objects.requireNonNull(data, "data");
        CmsForm form = CmsForm.detached(options);
        return cms(signer -> signer.sign(data, form));
    }

    /**
     * A CMS signature of a file, without the content, as
     * {@link SigningClient#signCmsDetached(Path, CmsOption...)} makes it.
     *
     * @param file at least one byte
     * @param options which certificates the signature contains; without options, the signer's
     * @return a new request
     * @throws IllegalArgumentException if the options exclude each other
     */
    public static SigningRequest cmsDetached(Path file, CmsOption... options) {
        Objects.requireNonNull(file, "file");
        CmsForm form = CmsForm.detached(options);
        return cms(signer -> signer.sign(file, form));
    }

    /**
     * A CMS signature of the rest of a stream, as
     * {@link SigningClient#signCmsDetached(InputStream, CmsOption...)} makes it.
     *
     * @param stream at least one byte; it is read to its end and not closed
     * @param options which certificates the signature contains; without options, the signer's
     * @return a new request, good for one signature
     * @throws IllegalArgumentException if the options exclude each other
     */
    public static SigningRequest cmsDetached(InputStream stream, CmsOption... options) {
        Objects.requireNonNull(stream, "stream");
        CmsForm form = CmsForm.detached(options);
        return new SigningRequest(signer -> signer.sign(stream, form), false, true);
    }

    /**
     * A CMS signature that contains the text.
     *
     * @param text the text
     * @param options which certificates the signature contains; without options, the signer's
     * @return a new request
     * @throws IllegalArgumentException if the options exclude each other
     */
    public static SigningRequest cmsAttached(String text, CmsOption... options) {
        Objects.requireNonNull(text, "text");
        CmsForm form = CmsForm.attached(options);
        return cms(signer -> signer.sign(text, form));
    }

    /**
     * A CMS signature that contains the data.
     *
     * @param data at least one byte
     * @param options which certificates the signature contains; without options, the signer's
     * @return a new request
     * @throws IllegalArgumentException if the options exclude each other
     */
    public static SigningRequest cmsAttached(byte[] data, CmsOption... options) {
        Objects.requireNonNull(data, "data");
        CmsForm form = CmsForm.attached(options);
        return cms(signer -> signer.sign(data, form));
    }

    /**
     * A CMS signature that contains the content of a file, as
     * {@link SigningClient#signCmsAttached(Path, CmsOption...)} makes it.
     *
     * @param file at least one byte
     * @param options which certificates the signature contains; without options, the signer's
     * @return a new request
     * @throws IllegalArgumentException if the options exclude each other
     */
    public static SigningRequest cmsAttached(Path file, CmsOption... options) {
        Objects.requireNonNull(file, "file");
        CmsForm form = CmsForm.attached(options);
        return cms(signer -> signer.sign(file, form));
    }

    byte[] sign(ContentSigner signer) throws IOException, SigningException {
        return work.sign(signer);
    }

    boolean isRepeatable() {
        return repeatable;
    }

    boolean isCms() {
        return cms;
    }
}
