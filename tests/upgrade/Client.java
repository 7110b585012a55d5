import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.security.KeyStore;
import java.security.PrivateKey;
import java.security.Provider;
import java.security.Signature;
import java.util.Base64;
import java.util.Collections;
import vex.jni.TAVClientJNI;

/**
 * A Java program of a user of an earlier release: the natives, and the provider for java.security. It is compiled with
 * the jar of that release and run with jars and libraries of both. Client STORE DIRECTORY
 */
public final class Client {
    private static final TAVClientJNI NATIVES = new TAVClientJNI();
    private static final String TEXT = "A text to sign, \u6f22\u5b57.";

    private Client() { }

    public static void main(String[] args) throws Exception {
        Path directory = Paths.get(args[1]);
        natives(args[0], directory);
        provider(args[0]);
    }

    private static void natives(String store, Path directory) throws Exception {
        String base64 = Base64.getEncoder().encodeToString(TEXT.getBytes(StandardCharsets.UTF_8));
        print("version", NATIVES.GetSignVersion(0).replace('\0', '_'));
        print("no store", NATIVES.Initialize(null, "file:/no/such/file"));
        print("error", NATIVES.GetLastError(0));
        long handle = NATIVES.Initialize(null, store);
        print("Initialize", handle != 0);
        print("SetDigestAlg", NATIVES.SetDigestAlg(handle, "SHA-384"));
        print("SetChooseSingleCert", NATIVES.SetChooseSingleCert(handle, 1));
        print("AddFilter", NATIVES.AddFilter(handle, TAVClientJNI.FILTER_KEY_ALGORITHM, "RSA"));
        print("unknown filter", NATIVES.AddFilter(handle, 99, "x"));
        print("GetLastError", NATIVES.GetLastError(handle));
        print("GetLastErrorMessage", NATIVES.GetLastErrorMessage(handle) != null);
        print("GetCertList", NATIVES.GetCertList(handle));
        print("GetSignCert", NATIVES.GetSignCert(handle));
        print("P1SignString", NATIVES.P1SignString(handle, TEXT));
        print("P1Sign", NATIVES.P1Sign(handle, base64));
        print("not Base64", NATIVES.P1Sign(handle, "!"));
        write(directory.resolve("java.p7"), NATIVES.P7Sign(handle, base64, 1, 1));
        write(directory.resolve("java.p7a"), NATIVES.P7SignString(handle, TEXT, 0, 1));
        Files.write(directory.resolve("java.txt"), TEXT.getBytes(StandardCharsets.UTF_8));
        print("ClearFilter", NATIVES.ClearFilter(handle));
        print("Finalize", NATIVES.Finalize(handle));
    }

    private static void provider(String store) throws Exception {
        Provider provider = (Provider) Class.forName("vex.client.SigningProvider").getConstructor(String.class)
            .newInstance(store);
        KeyStore keys = KeyStore.getInstance("VexClient", provider);
        keys.load(null, null);
        for (String alias : Collections.list(keys.aliases())) {
            PrivateKey key = (PrivateKey) keys.getKey(alias, null);
            Signature signer = Signature.getInstance("SHA256with" + key.getAlgorithm().replace("EC", "ECDSA"), provider);
            signer.initSign(key);
            signer.update(TEXT.getBytes(StandardCharsets.UTF_8));
            byte[] signature = signer.sign();
            Signature verifier = Signature.getInstance("SHA256with" + key.getAlgorithm().replace("EC", "ECDSA"));
            verifier.initVerify(keys.getCertificate(alias));
            verifier.update(TEXT.getBytes(StandardCharsets.UTF_8));
            print("provider signs with " + key.getAlgorithm(), verifier.verify(signature));
        }
    }

    private static void print(String name, Object value) {
        System.out.println(name + ": " + value);
    }

    private static void write(Path file, String signature) throws Exception {
        Files.write(file, (signature + "\n").getBytes(StandardCharsets.US_ASCII));
    }
}
