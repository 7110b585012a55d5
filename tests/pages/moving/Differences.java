import java.io.InputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.security.AuthProvider;
import java.security.KeyStore;
import java.security.PrivateKey;
import java.security.Provider;
import java.security.Security;
import java.security.Signature;
import java.util.Arrays;
import java.util.Collections;
import java.util.concurrent.Callable;
import org.bouncycastle.jce.provider.BouncyCastleProvider;
import org.bouncycastle.operator.jcajce.JcaContentSignerBuilder;
import vex.client.SigningClient;
import vex.client.SigningProvider;
import vex.client.StoreParameter;

/** What the tables "What differs" of docs/moving.md say about both sides. */
public final class Differences {
    private static final String MODULE = "?module-path=/usr/lib/softhsm/libsofthsm2.so";
    private static final String TOKEN = "pkcs11:token=Test" + MODULE;
    private static final String NO_TOKEN = "pkcs11:token=None" + MODULE;

    private Differences() {}

    private static void expect(String what, boolean good) {
        if (!good) {
            throw new AssertionError(what);
        }
    }

    /** Exceptions, each the cause of the one before, such as "IOException LoginException"; or what the call returns. */
    private static String outcome(Callable<?> call) {
        try {
            return String.valueOf(call.call());
        } catch (Exception e) {
            StringBuilder names = new StringBuilder();
            for (Throwable cause = e; cause != null; cause = cause.getCause()) {
                names.append(cause.getClass().getSimpleName()).append(' ');
            }
            return names.toString();
        }
    }

    private static void expectOutcome(String expected, Callable<?> call) {
        String found = outcome(call);
        expect("\"" + found + "\" instead of \"" + expected + "\"", found.startsWith(expected));
    }

    private static boolean signs(PrivateKey key) throws Exception {
        Signature signer = Signature.getInstance("SHA256withRSA");
        signer.initSign(key);
        signer.update(new byte[] {1, 2, 3});
        return signer.sign().length == 256;
    }

    private static KeyStore loaded(String type, Provider provider, String pin) throws Exception {
        KeyStore store = KeyStore.getInstance(type, provider);
        store.load(null, pin.toCharArray());
        return store;
    }

    private static PrivateKey key(KeyStore store, String alias) throws Exception {
        return (PrivateKey) store.getKey(alias, null);
    }

    private static AuthProvider configured(String lines) throws Exception {
        Path file = Files.write(Paths.get("other.cfg"), lines.getBytes());
        return (AuthProvider) Security.getProvider("SunPKCS11").configure(file.toString());
    }

    private static void tokens() throws Exception {
        AuthProvider sun = (AuthProvider) Security.getProvider("SunPKCS11").configure("keytool.cfg");
        AuthProvider vex = new SigningProvider(TOKEN);
        Security.addProvider(sun);
        Security.addProvider(vex);
        expect(sun.getName(), sun.getName().equals("SunPKCS11-Test"));

        expectOutcome("IOException UnrecoverableKeyException FailedLoginException",
            () -> loaded("PKCS11", sun, "9999"));
        expectOutcome("IOException UnrecoverableKeyException SigningException ",
            () -> loaded("VexClient", vex, "9999"));
        expectOutcome("SigningException ", () -> SigningClient.store(TOKEN).pin("9999".toCharArray()).open());
        expectOutcome("ProviderException", () -> configured("name=None\nlibrary=/usr/lib/none.so"));
        expectOutcome("ProviderException", () -> configured(
            "name=None\nlibrary=/usr/lib/softhsm/libsofthsm2.so\nslotListIndex=9"));
        expectOutcome("IOException SigningException ",
            () -> loaded("VexClient", new SigningProvider(NO_TOKEN), "1234"));

        KeyStore before = loaded("PKCS11", sun, "1234");
        KeyStore after = loaded("VexClient", vex, "1234");
        expect("aliases", Collections.list(before.aliases()).equals(Collections.list(after.aliases())));
        expect("the case of an alias", key(before, "KEY") == null && key(after, "KEY") != null);
        PrivateKey beforeKey = key(before, "key");
        PrivateKey afterKey = key(after, "key");
        expect("both sign", signs(beforeKey) && signs(afterKey));
        expect("EdDSA", sun.getService("Signature", "EdDSA") == null && vex.getService("Signature", "EdDSA") != null);
        expect("SHA-1", sun.getService("Signature", "SHA1withRSA") != null
            && vex.getService("Signature", "SHA1withRSA") == null);

        sun.logout();
        expectOutcome("ProviderException", () -> signs(beforeKey));
        expect("this provider logs in again", signs(afterKey));
        PrivateKey again = key(loaded("PKCS11", sun, "1234"), "key");
        expectOutcome("ProviderException", () -> signs(beforeKey));

        vex.logout();
        expectOutcome("InvalidKeyException ", () -> signs(afterKey));
        expect("SunPKCS11 stays logged in", signs(again));
        loaded("VexClient", vex, "1234");
        expectOutcome("InvalidKeyException ", () -> signs(afterKey));

        SigningClient client = SigningClient.store(TOKEN).pin("1234".toCharArray()).open();
        client.close();
        expectOutcome("IllegalStateException ", () -> client.signRaw("text"));
    }

    private static void files() throws Exception {
        Path file = Paths.get("/etc/app/keys.p12");
        Path pinFile = Paths.get("/etc/app/pin");
        KeyStore before = KeyStore.getInstance("PKCS12");
        expectOutcome("IOException UnrecoverableKeyException", () -> {
            try (InputStream stream = Files.newInputStream(file)) {
                before.load(stream, "9999".toCharArray());
            }
            return before;
        });
        try (InputStream stream = Files.newInputStream(file)) {
            before.load(stream, "1234".toCharArray());
        }
        KeyStore after = KeyStore.getInstance("VexClient");
        after.load(StoreParameter.file(file, pinFile));
        expect("aliases", Collections.list(before.aliases()).equals(Arrays.asList("app"))
            && Collections.list(after.aliases()).equals(Arrays.asList("App")));
        for (String alias : new String[] {"app", "App"}) {
            expect("chains", Arrays.equals(before.getCertificateChain(alias), after.getCertificateChain(alias))
                && after.getCertificateChain(alias).length == 2);
        }

        PrivateKey key = key(after, "app");
        expect("no encoded form", key.getEncoded() == null);
        Security.addProvider(new BouncyCastleProvider());
        expect("setProvider", outcome(() -> new JcaContentSignerBuilder("SHA256withRSA").setProvider("BC").build(key))
            .startsWith("OperatorCreationException"));
        new JcaContentSignerBuilder("SHA256withRSA").build(key);
    }

    public static void main(String[] args) throws Exception {
        tokens();
        files();
        System.out.println("The tables are right.");
    }
}
