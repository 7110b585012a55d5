package vex.client;

import java.io.IOException;
import java.io.InputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.MessageDigest;
import vex.jni.VCTKError;

/**
 * Signs with the certificates of a selection. It reads files and streams in pieces if the toolkit signs digests. Any
 * thread may call any method.
 */
final class ContentSigner {
    private static final int PIECE = 1 << 17;

    private final Session session;
    private final Selection selection;
    private final String digestName;  // of the client; null for the toolkit's default
    private final String prehashed;
    private final Digest digest;    // null: unknown here
    private final Stamper stamper;  // null: signatures are not stamped

    ContentSigner(Session session, Selection selection, String digestName, Stamper stamper) {
        String name = Digest.orDefault(digestName);
        this.session = session;
        this.selection = selection;
        this.digestName = digestName;
        this.stamper = stamper;
        prehashed = Digest.PREHASHED + name;
        digest = Digest.of(Digest.withoutPss(name));
    }

    byte[] signRaw(String text) throws SigningException {
        requireNoStamp();
        return session.signP1(selection, digestName, text);
    }

    byte[] signRaw(byte[] data) throws SigningException {
        requireNoStamp();
        return session.signP1(selection, digestName, data);
    }

    /** @throws SigningException if the toolkit does not sign digests, or not this one */
    byte[] signDigest(byte[] value) throws SigningException {
        requireNoStamp();
        if (!session.knowsDigest(prehashed)) {
            throw SigningException.notSupported("The toolkit cannot sign a digest; sign the data with signRaw");
        }
        return session.signP1(selection, prehashed, value);
    }

    byte[] sign(String text, CmsForm form) throws SigningException {
        return stamped(() -> session.signP7(selection, digestName, text, form));
    }

    byte[] sign(byte[] data, CmsForm form) throws SigningException {
        if (stamper == null || form.isDetached()) {
            return stamped(() -> session.signP7(selection, digestName, data, form));
        }
        // A stamp covers the signature value only, so the toolkit need not have the content for it.
        AttachedCms cms = new AttachedCms(
            stamped(() -> session.signP7(selection, digestName, data, form.toDetached())), data.length);
        System.arraycopy(data, 0, cms.der(), cms.contentBegin(), data.length);
        return cms.der();
    }

    private byte[] stamped(Stamper.Signing signing) throws SigningException {
        return stamper == null ? signing.sign() : stamper.stamped(signing);
    }

    private void requireNoStamp() throws SigningException {
        if (stamper != null) {
            session.requireOpen();
            throw Stamper.noPlace();
        }
    }

    byte[] sign(InputStream stream, CmsForm form) throws IOException, SigningException {
        MessageDigest hash = form.isDetached() ? newDigest() : null;
        if (hash == null) {
            DataCollector data = new DataCollector(NativeText.MAX_BYTES);
            read(stream, data::add);
            return sign(data.take(), form);
        }
        requireContent(read(stream, hash::update));
        byte[] value = hash.digest();
        return stamped(() -> session.signP7(selection, prehashed, value, form));
    }

    byte[] sign(Path file, CmsForm form) throws IOException, SigningException {
        MessageDigest hash = form.isDetached() || !Files.isRegularFile(file) ? null : newDigest();
        if (hash == null) {
            try (InputStream stream = Files.newInputStream(file)) {
                return sign(stream, form);
            }
        }
        return attached(file, hash, form);
    }

    /** Reads the file once for its digest and once into the signature, so that it is in memory only once. */
    private byte[] attached(Path file, MessageDigest hash, CmsForm form) throws IOException, SigningException {
        AttachedCms.requireArray(Files.size(file));
        long length;
        try (InputStream stream = Files.newInputStream(file)) {
            length = read(stream, hash::update);
        }
        requireContent(length);
        byte[] value = hash.digest();
        AttachedCms cms = new AttachedCms(
            stamped(() -> session.signP7(selection, prehashed, value, form.toDetached())), length);
        int end = cms.contentBegin() + (int) length;
        boolean grown;
        try (InputStream stream = Files.newInputStream(file)) {
            for (int at = cms.contentBegin(); at < end;) {
                int count = stream.read(cms.der(), at, Math.min(PIECE, end - at));
                if (count < 0) {
                    break;
                }
                hash.update(cms.der(), at, count);
                at += count;
            }
            grown = stream.read() >= 0;
        }
        if (grown || !MessageDigest.isEqual(value, hash.digest())) {
            throw new IOException("The file changed while it was signed: " + file);
        }
        return cms.der();
    }

    /** Null: the toolkit has to digest the data, so it needs all of it. */
    private MessageDigest newDigest() throws SigningException {
        return digest == null || !session.knowsDigest(prehashed) || hasEdwardsKey() ? null : digest.newMessageDigest();
    }

    /** Ed25519 and Ed448 do not sign a digest. */
    private boolean hasEdwardsKey() throws SigningException {
        return has(KeyAlgorithm.ED25519) || has(KeyAlgorithm.ED448);
    }

    /** Asked anew each time, because certificates become valid and expire. The list is nearly always empty. */
    private boolean has(KeyAlgorithm algorithm) throws SigningException {
        return !session.certificates(selection.with(Filter.keyAlgorithm(algorithm.toString()))).isEmpty();
    }

    private interface Pieces {
        void add(byte[] bytes, int offset, int length) throws SigningException;
    }

    private static long read(InputStream stream, Pieces pieces) throws IOException, SigningException {
        byte[] piece = new byte[PIECE];
        long length = 0;
        for (int count = stream.read(piece); count >= 0; count = stream.read(piece)) {
            pieces.add(piece, 0, count);
            length += count;
        }
        return length;
    }

    /** Empty data is refused like in all other calls. */
    private static void requireContent(long length) throws SigningException {
        if (length == 0) {
            throw NativeText.empty();
        }
    }
}
