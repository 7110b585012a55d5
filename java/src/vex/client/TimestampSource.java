package vex.client;

import java.io.IOException;
import java.net.URI;

/**
 * Gets time stamps (RFC 3161) from an authority. {@link SigningClient.Builder#timestamp} takes one; the client then
 * stamps every CMS signature. The client makes the requests and checks the replies, so a source only carries bytes:
 *
 * <pre>{@code
 * TimestampSource source = request -> post("https://tsa.example/", "application/timestamp-query", request);
 * }</pre>
 *
 * <p>Several threads may call a source at once. A source may take its time: the client holds no lock and no handle of
 * the toolkit meanwhile. But it has to come to an end, because the call that signs waits for it.
 */
@FunctionalInterface
public interface TimestampSource {
    /**
     * Sends a request to an authority.
     *
     * @param request a TimeStampReq in DER, which has a digest of the signature and nothing else of it. The array
     *     belongs to the source
     * @return the authority's TimeStampResp in DER, also one that refuses
     * @throws IOException if there is no reply; its message becomes a part of the message of the
     *     {@link SigningException}
     */
    byte[] timestamp(byte[] request) throws IOException;

    /**
     * A source that sends the requests over HTTP or HTTPS (RFC 3161 section 3.4), with the JDK's settings for proxies,
     * for HTTPS and for authentication. It takes ten seconds at most. The authorities are tried in turn, until one
     * grants a stamp; each has an equal share of the time that is left. Each request has a connection of its own.
     * Redirects are not followed, and replies of more than 64 KiB are refused. A stamp that is granted and wrong is an
     * error; no other authority is tried then. It may be used by several clients.
     *
     * @param authorities at least one
     * @return a new source
     * @throws IllegalArgumentException if there is no authority, or if one is not an absolute {@code http:} or
     *     {@code https:} URI with a host, or has a user name or password
     */
    static TimestampSource http(URI... authorities) {
        return new HttpTimestampSource(HttpTimestampSource.TIMEOUT_MILLISECONDS, authorities);
    }
}
