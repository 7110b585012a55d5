package vex.interop;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;

import java.net.InetAddress;
import java.security.KeyStore;
import java.security.cert.Certificate;
import java.security.cert.X509Certificate;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.CompletionException;
import java.util.concurrent.ExecutionException;
import javax.net.ssl.KeyManager;
import javax.net.ssl.KeyManagerFactory;
import javax.net.ssl.SSLContext;
import javax.net.ssl.SSLServerSocket;
import javax.net.ssl.SSLSocket;
import javax.net.ssl.TrustManager;
import javax.net.ssl.TrustManagerFactory;
import vex.jni.TestStore;

/** A TLS connection inside this JVM. The other side has keys of the JDK only. */
final class Tls {
    private static final byte[] DATA = "I owe you 100 euros.".getBytes();
    /** Ends a test that would wait for ever. */
    private static final int TIMEOUT_MILLISECONDS = 60_000;

    private Tls() {}

    static Program client(String protocol) {
        return signer -> {
            TestStore.Identity peer = TestStore.identity("secp256r1", "CN=Server", 1, 30, 0);
            KeyStore keys = KeyStore.getInstance("PKCS12");
            keys.load(null, null);
            keys.setKeyEntry("key", peer.key(), TestStore.PIN.toCharArray(), new Certificate[] {peer.certificate()});
            SSLContext server = context(keys, signer.root());
            SSLContext client = context(signer.store(), peer.certificate());
            connect(protocol, server, client, signer, null);
        };
    }

    static Program server(String protocol) {
        return signer ->
            connect(protocol, context(signer.store(), null), context(null, signer.root()), null, signer);
    }

    /** @param keys null for none */
    private static SSLContext context(KeyStore keys, X509Certificate root) throws Exception {
        KeyManager[] keyManagers = null;
        if (keys != null) {
            KeyManagerFactory factory = KeyManagerFactory.getInstance(KeyManagerFactory.getDefaultAlgorithm());
            factory.init(keys, TestStore.PIN.toCharArray());
            keyManagers = factory.getKeyManagers();
        }
        TrustManager[] trustManagers = null;
        if (root != null) {
            KeyStore roots = KeyStore.getInstance("PKCS12");
            roots.load(null, null);
            roots.setCertificateEntry("root", root);
            TrustManagerFactory factory = TrustManagerFactory.getInstance(TrustManagerFactory.getDefaultAlgorithm());
            factory.init(roots);
            trustManagers = factory.getTrustManagers();
        }
        SSLContext context = SSLContext.getInstance("TLS");
        context.init(keyManagers, trustManagers, null);
        return context;
    }

    /**
     * @param byClient whom the server has to see; null to ask for no certificate
     * @param byServer whom the client has to see; null for anybody who is trusted
     */
    private static void connect(String protocol, SSLContext server, SSLContext client, Signer byClient,
            Signer byServer) throws Exception {
        try (SSLServerSocket listener = (SSLServerSocket) server.getServerSocketFactory()
                .createServerSocket(0, 1, InetAddress.getLoopbackAddress())) {
            listener.setSoTimeout(TIMEOUT_MILLISECONDS);
            listener.setNeedClientAuth(byClient != null);
            CompletableFuture<Void> served = CompletableFuture.runAsync(() -> serve(listener, byClient));
            try {
                call(protocol, client, listener, byServer);
            } catch (Exception e) {
                addReason(served, e);
                throw e;
            }
            served.get();
        }
    }

    /** Adds the server's reason to what the client saw of it. */
    private static void addReason(CompletableFuture<Void> served, Exception e) throws InterruptedException {
        try {
            served.get();
        } catch (ExecutionException failed) {
            e.addSuppressed(failed.getCause());
        }
    }

    private static void serve(SSLServerSocket listener, Signer client) {
        try (SSLSocket socket = (SSLSocket) listener.accept()) {
            socket.setSoTimeout(TIMEOUT_MILLISECONDS);
            socket.startHandshake();
            if (client != null) {
                assertEquals(client.certificate(), socket.getSession().getPeerCertificates()[0]);
            }
            socket.getOutputStream().write(DATA);
        } catch (Exception e) {
            throw new CompletionException(e);
        }
    }

    private static void call(String protocol, SSLContext client, SSLServerSocket listener, Signer server)
            throws Exception {
        try (SSLSocket socket = (SSLSocket) client.getSocketFactory()
                .createSocket(listener.getInetAddress(), listener.getLocalPort())) {
            socket.setSoTimeout(TIMEOUT_MILLISECONDS);
            socket.setEnabledProtocols(new String[] {protocol});
            assertArrayEquals(DATA, socket.getInputStream().readNBytes(DATA.length));
            assertEquals(protocol, socket.getSession().getProtocol());
            if (server != null) {
                assertEquals(server.certificate(), socket.getSession().getPeerCertificates()[0]);
            }
        }
    }
}
