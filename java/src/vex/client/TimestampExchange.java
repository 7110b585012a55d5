package vex.client;

import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.InterruptedIOException;
import java.io.OutputStream;
import java.net.HttpURLConnection;
import java.net.SocketTimeoutException;
import java.net.URL;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.FutureTask;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.TimeoutException;

/**
 * One request to an authority over HTTP. The JDK limits the time of each read, and not that of a reply whose bytes come
 * one by one, nor that of the name's resolution. So the exchange has a thread of its own, which the caller leaves
 * behind when the time is over: its connection is closed then. For one thread.
 */
final class TimestampExchange {
    private static final int MAX_REPLY = 1 << 16;
    private static final int PIECE = 1 << 12;
    private static final String REPLY_TYPE = "application/timestamp-reply";

    private final URL authority;
    private final byte[] request;
    private final long deadline;  // of System.nanoTime
    private volatile HttpURLConnection connection;
    private volatile boolean abandoned;

    TimestampExchange(URL authority, byte[] request, long deadline) {
        this.authority = authority;
        this.request = request;
        this.deadline = deadline;
    }

    /** May be called once. */
    byte[] run() throws IOException {
        FutureTask<byte[]> exchange = new FutureTask<>(this::exchange);
        start(exchange, "vex.client time stamp");
        try {
            return exchange.get(deadline - System.nanoTime(), TimeUnit.NANOSECONDS);
        } catch (TimeoutException e) {
            abandon();
            throw late();
        } catch (InterruptedException e) {
            abandon();
            Thread.currentThread().interrupt();
            throw new InterruptedIOException("the thread was interrupted");
        } catch (ExecutionException e) {
            if (e.getCause() instanceof IOException) {
                throw (IOException) e.getCause();
            }
            throw new IOException(e.getCause().toString(), e.getCause());
        }
    }

    /** Closing may wait for a read that is in progress, so the caller does not close. */
    private void abandon() {
        abandoned = true;
        HttpURLConnection opened = connection;
        if (opened != null) {
            start(opened::disconnect, "vex.client time stamp's end");
        }
    }

    private static void start(Runnable work, String name) {
        Thread thread = new Thread(work, name);
        thread.setDaemon(true);
        thread.start();
    }

    private byte[] exchange() throws IOException {
        HttpURLConnection opened = (HttpURLConnection) authority.openConnection();
        connection = opened;
        opened.setConnectTimeout(millisecondsLeft());
        opened.setReadTimeout(millisecondsLeft());
        opened.setInstanceFollowRedirects(false);
        opened.setUseCaches(false);
        opened.setDoOutput(true);
        opened.setRequestMethod("POST");
        opened.setRequestProperty("Content-Type", "application/timestamp-query");
        opened.setRequestProperty("Accept", REPLY_TYPE);
        // What is kept alive is not closed with its stream: first, a thread of the JDK reads the rest of the reply. It
        // does so still, for ten connections at most, if an authority keeps them against this wish.
        opened.setRequestProperty("Connection", "close");
        byte[] reply = null;
        try {
            try (OutputStream out = opened.getOutputStream()) {
                out.write(request);
            }
            millisecondsLeft();  // what is left behind before it is connected ends here
            reply = reply(opened);
            return reply;
        } finally {
            if (reply == null) {
                opened.disconnect();
            }
        }
    }

    private byte[] reply(HttpURLConnection opened) throws IOException {
        int status = opened.getResponseCode();
        if (status != HttpURLConnection.HTTP_OK) {
            throw new IOException(status < 0 ? "the answer is not HTTP" : "HTTP status " + status
                + (status / 100 == 3 ? "; redirects are not followed, so name the authority itself" : ""));
        }
        String type = opened.getContentType();
        if (type == null || !type.split(";", 2)[0].trim().equalsIgnoreCase(REPLY_TYPE)) {
            throw new IOException("the content of the answer is not " + REPLY_TYPE);
        }
        if (opened.getContentLengthLong() > MAX_REPLY) {
            throw tooLong();
        }
        ByteArrayOutputStream reply = new ByteArrayOutputStream();
        byte[] piece = new byte[PIECE];
        try (InputStream in = opened.getInputStream()) {
            for (int count = in.read(piece); count >= 0; count = in.read(piece)) {
                reply.write(piece, 0, count);
                if (reply.size() > MAX_REPLY) {
                    throw tooLong();
                }
                millisecondsLeft();
            }
        }
        return reply.toByteArray();
    }

    /** Fails if the time is over, or if nobody waits for the reply. */
    private int millisecondsLeft() throws IOException {
        long left = TimeUnit.NANOSECONDS.toMillis(deadline - System.nanoTime());
        if (left <= 0 || abandoned) {
            throw late();
        }
        return (int) Math.min(left, Integer.MAX_VALUE);
    }

    private static IOException late() {
        return new SocketTimeoutException("no reply in time");
    }

    private static IOException tooLong() {
        return new IOException("the reply has more than " + MAX_REPLY + " bytes");
    }
}
