package vex.client;

import java.security.MessageDigest;

/**
 * The message of a signature, as far as it is known: its digest so far, or all of its data if the toolkit has to digest
 * it. For one thread at a time.
 */
final class Message {
    private final String digestName;
    private final MessageDigest digest;  // null: the data is collected
    private final DataCollector data;
    private boolean begun;

    private Message(String digestName, MessageDigest digest, DataCollector data) {
        this.digestName = digestName;
        this.digest = digest;
        this.data = data;
    }

    /** Digested here if the toolkit signs digests and this Java has the algorithm. */
    static Message digested(SigningKey key, Digest name, String padding) {
        String prehashed = Digest.PREHASHED + name + padding;
        MessageDigest digest = name.newMessageDigest();
        return digest != null && key.knowsDigest(prehashed)
            ? new Message(prehashed, digest, null)
            : collected(name + padding, NativeText.MAX_BYTES);
    }

    /** @param digestName what the toolkit does with the data */
    static Message collected(String digestName, int limit) {
        return new Message(digestName, null, new DataCollector(limit));
    }

    void update(byte[] bytes, int offset, int length) throws SigningException {
        begun = begun || length > 0;
        if (digest != null) {
            digest.update(bytes, offset, length);
        } else {
            data.add(bytes, offset, length);
        }
    }

    boolean isEmpty() {
        return !begun;
    }

    /** Signs the message, and begins a new one. */
    byte[] sign(SigningKey key) throws SigningException {
        begun = false;
        return key.sign(digestName, digest != null ? digest.digest() : data.take());
    }
}
