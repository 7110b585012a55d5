package vex.interop;

import java.io.InputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.KeyStore;
import java.security.PrivateKey;
import java.security.cert.X509Certificate;
import java.util.EnumMap;
import java.util.List;
import java.util.Map;
import vex.client.SigningProvider;
import vex.client.StoreParameter;
import vex.jni.Run;
import vex.jni.TestStore;

/**
 * A key that programs sign with, and the chain of its certificate: the signer's, an issuer's, and the root's, which
 * alone is trusted.
 *
 * @param ours whether the key is of {@link SigningProvider}, which has to be among the JVM's providers, and not in a
 *     KeyStore of the JDK
 * @param directory for the files of one program
 */
record Signer(KeyKind kind, boolean ours, Path directory, Path storeFile, KeyStore store, String alias, PrivateKey key,
              List<X509Certificate> chain) {
    /** Writes the files keys.p12 and root.pem for each kind, into a new directory of its name. Returns the chains. */
    static Map<KeyKind, List<X509Certificate>> writeFiles(Path directory) throws Exception {
        Map<KeyKind, List<X509Certificate>> chains = new EnumMap<>(KeyKind.class);
        for (KeyKind kind : KeyKind.values()) {
            chains.put(kind, writeFiles(kind, Files.createDirectory(directory.resolve(kind.name()))));
        }
        return chains;
    }

    private static List<X509Certificate> writeFiles(KeyKind kind, Path directory) throws Exception {
        List<TestStore.Identity> identities = TestStore.chain(kind.keyName(), 3);
        TestStore.writeChain(directory.resolve("keys.p12"), identities);
        List<X509Certificate> chain = identities.stream().map(TestStore.Identity::certificate).toList();
        Files.writeString(directory.resolve("root.pem"), TestStore.pem("CERTIFICATE", chain.get(2).getEncoded()));
        return chain;
    }

    /** Opens the files that {@link #writeFiles} wrote. */
    static Signer open(KeyKind kind, boolean ours, List<X509Certificate> chain, Path files) throws Exception {
        Path file = files.resolve("keys.p12");
        KeyStore store;
        if (ours) {
            store = KeyStore.getInstance(SigningProvider.KEY_STORE_TYPE);
            store.load(StoreParameter.file(file, new KeyStore.PasswordProtection(TestStore.PIN.toCharArray())));
        } else {
            store = KeyStore.getInstance("PKCS12");
            try (InputStream stream = Files.newInputStream(file)) {
                store.load(stream, TestStore.PIN.toCharArray());
            }
        }
        String alias = store.getCertificateAlias(chain.get(0));
        PrivateKey key = alias == null ? null : (PrivateKey) store.getKey(alias, TestStore.PIN.toCharArray());
        Path directory = Files.createTempDirectory(files, "signer");
        Files.copy(files.resolve("root.pem"), directory.resolve("root.pem"));
        return new Signer(kind, ours, directory, file, store, alias, key, chain);
    }

    X509Certificate certificate() {
        return chain.get(0);
    }

    X509Certificate root() {
        return chain.get(chain.size() - 1);
    }

    /** The certificates that go with a signature. */
    List<X509Certificate> withoutRoot() {
        return chain.subList(0, chain.size() - 1);
    }

    /** Runs a program in the directory; fails with what it printed unless its exit status is 0. */
    Run run(String... command) throws Exception {
        ProcessBuilder builder =
            new ProcessBuilder(command).directory(directory.toFile()).redirectErrorStream(true);
        // The JDK's tools are JVMs that end before optimised code pays off.
        builder.environment().put("JAVA_TOOL_OPTIONS", "-XX:TieredStopAtLevel=1 -XX:+UseSerialGC");
        return Run.of(builder).succeeded();
    }

    Path write(String name, byte[] content) throws Exception {
        return Files.write(directory.resolve(name), content);
    }
}
