package vex.client;

import java.io.IOException;
import java.net.MalformedURLException;
import java.net.URI;
import java.net.URL;
import java.net.UnknownHostException;
import java.nio.charset.StandardCharsets;
import java.util.Objects;
import java.util.concurrent.TimeUnit;
import java.util.regex.Pattern;

/** Asks authorities over HTTP in turn, until one grants a time stamp. Immutable; any thread may use it. */
final class HttpTimestampSource implements TimestampSource {
    static final long TIMEOUT_MILLISECONDS = 10_000;

    /** RFC 3161 section 2.4.2: granted, and granted with changes. All others refuse. */
    private static final int MAX_GRANTED = 1;
    private static final int MAX_TEXT = 200;
    /** Control and formatting characters, halves of others, and what ends a line. */
    private static final Pattern UNPRINTABLE = Pattern.compile("[\\p{C}\\p{Zl}\\p{Zp}]");

    private final long timeout;  // in nanoseconds, for all authorities together
    private final URL[] authorities;

    HttpTimestampSource(long timeoutMilliseconds, URI... authorities) {
        Arguments.requireElements(authorities, "authorities");
        if (authorities.length == 0) {
            throw new IllegalArgumentException("There is no time-stamp authority");
        }
        timeout = TimeUnit.MILLISECONDS.toNanos(timeoutMilliseconds);
        this.authorities = new URL[authorities.length];
        for (int i = 0; i < authorities.length; ++i) {
            this.authorities[i] = url(authorities[i]);
        }
    }

    /** No message has the URI of an authority with a password. */
    private static URL url(URI authority) {
        String scheme = authority.getScheme();
        if (!"http".equalsIgnoreCase(scheme) && !"https".equalsIgnoreCase(scheme) || authority.getHost() == null) {
            throw new IllegalArgumentException(
                "A time-stamp authority has a URI that begins with http://HOST or https://HOST");
        }
        if (authority.getRawUserInfo() != null) {
            throw new IllegalArgumentException("The URI of a time-stamp authority has no user name and no password;"
                + " java.net.Authenticator gives them");
        }
        try {
            return authority.toURL();
        } catch (MalformedURLException e) {
            throw new IllegalArgumentException(e.getMessage(), e);
        }
    }

    @Override
    public byte[] timestamp(byte[] request) throws IOException {
        Objects.requireNonNull(request, "request");
        long deadline = System.nanoTime() + timeout;
        IOException failure = null;
        StringBuilder text = new StringBuilder();
        for (int i = 0; i < authorities.length; ++i) {
            long now = System.nanoTime();
            long share = (deadline - now) / (authorities.length - i);
            try {
                return requireGranted(new TimestampExchange(authorities[i], request, now + share).run());
            } catch (IOException e) {
                text.append(text.length() == 0 ? "" : "; ").append(name(authorities[i])).append(": ").append(reason(e));
                if (failure != null) {
                    e.addSuppressed(failure);
                }
                failure = e;
                if (Thread.currentThread().isInterrupted()) {
                    break;
                }
            }
        }
        throw new IOException(text.toString(), failure);
    }

    /** Without the query, which may hold a key of the customer. */
    private static String name(URL authority) {
        return authority.getProtocol() + "://" + authority.getAuthority() + authority.getPath();
    }

    private static String reason(IOException e) {
        if (e instanceof UnknownHostException) {
            return "the host is unknown";
        }
        return e.getMessage() == null ? e.toString() : e.getMessage();
    }

    /** Only so far that another authority can be tried: the toolkit checks the reply. */
    private static byte[] requireGranted(byte[] reply) throws IOException {
        String refusal;
        try {
            DerReader reader = new DerReader(reply);
            if (reader.enter(DerReader.SEQUENCE) != reply.length) {
                throw DerReader.malformed();
            }
            int end = reader.enter(DerReader.SEQUENCE);
            int begin = reader.skip(DerReader.INTEGER);
            if (reader.position() - begin != 1) {
                throw DerReader.malformed();
            }
            int status = reply[begin];
            if (status >= 0 && status <= MAX_GRANTED) {
                return reply;
            }
            refusal = "the authority refused, with status " + status
                + (reader.position() < end ? statusText(reply, reader) : "");
        } catch (SigningException e) {
            throw new IOException("the reply is no time-stamp reply");
        }
        throw new IOException(refusal);
    }

    /** The first of the authority's texts, in one line; empty if it gives none. */
    private static String statusText(byte[] reply, DerReader reader) throws SigningException {
        if (reply[reader.position()] != DerReader.SEQUENCE) {
            return "";
        }
        reader.enter(DerReader.SEQUENCE);
        int begin = reader.skip(DerReader.UTF8_STRING);
        String text = new String(reply, begin, reader.position() - begin, StandardCharsets.UTF_8);
        return ": " + UNPRINTABLE.matcher(text.substring(0, Math.min(text.length(), MAX_TEXT))).replaceAll(" ");
    }
}
