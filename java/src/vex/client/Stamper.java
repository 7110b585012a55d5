package vex.client;

import java.io.IOException;
import java.nio.file.Path;

/** Stamps CMS signatures with replies from a source. Any thread may call any method. */
final class Stamper {
    private final StampStore store;
    private final TimestampSource source;

    /** A call that makes a CMS signature. */
    interface Signing {
        byte[] sign() throws SigningException;
    }

    Stamper(StampStore store, TimestampSource source) {
        this.store = store;
        this.source = source;
    }

    /** Makes a CMS signature and stamps it. The source is asked while no handle is in use, so others sign meanwhile. */
    byte[] stamped(Signing signing) throws SigningException {
        byte[] cms = signing.sign();
        byte[] request = store.request(cms);
        return store.stamped(cms, request, reply(request));
    }

    /** The toolkit tells a reply from what precedes it by the elements, so the reply has to be exactly one. */
    private byte[] reply(byte[] request) throws SigningException {
        byte[] given;
        try {
            given = source.timestamp(request.clone());
        } catch (IOException e) {
            throw SigningException.notStamped(e.getMessage() == null ? e.toString() : e.getMessage(), e);
        }
        if (given == null) {
            throw SigningException.notStamped("the TimestampSource returned null", null);
        }
        byte[] reply = given.clone();
        if (!isSequence(reply)) {
            throw SigningException.notStamped("what the TimestampSource returned is no time-stamp reply in DER", null);
        }
        return reply;
    }

    private static boolean isSequence(byte[] der) {
        try {
            return new DerReader(der).enter(DerReader.SEQUENCE) == der.length;
        } catch (SigningException e) {
            return false;
        }
    }

    /** @throws IllegalStateException if the toolkit would stamp as well, or if an authority has no source */
    static void requireOneWay(String uri, TimestampSource source, Path authority) {
        if (source == null && authority != null) {
            throw new IllegalStateException("timestampAuthority goes with timestamp, which was not called; a store's"
                + " URI with tsa= takes tsa-ca=");
        }
        if (source != null && StoreText.hasStamps(uri)) {
            throw new IllegalStateException(
                "timestamp was called, and the store's URI has tsa= as well; leave one of them out");
        }
    }

    /** Bare signatures have no attributes. */
    static SigningException noPlace() {
        return SigningException.notStamped("a bare signature has no place for a time stamp; make a CMS signature, or"
            + " sign with a client without timestamp", null);
    }
}
