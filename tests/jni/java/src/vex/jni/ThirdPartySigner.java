package vex.jni;

import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.KeyPair;
import java.security.cert.X509Certificate;
import java.util.ArrayList;
import java.util.Base64;
import java.util.Collections;
import java.util.EnumMap;
import java.util.List;
import java.util.Map;
import java.util.Optional;
import java.util.Random;
import java.util.Set;
import vex.client.CmsOption;
import vex.client.SigningClient;
import vex.client.SigningException;
import vex.client.SigningRequest;
import vex.client.SigningResult;

/** A key in a store, its chain, and what signs with it: the natives, or vex.client. */
final class ThirdPartySigner implements AutoCloseable {
    /** What is signed, and whether it is given as text. */
    record Content(boolean asText, byte[] bytes) {
        String text() {
            return new String(bytes, StandardCharsets.UTF_8);
        }
    }

    enum Form { P1, P7_DETACHED, P7_ATTACHED }

    /** The include flag of the natives, or the option of vex.client. */
    enum Include {
        NONE(0), SIGNER(2), ALL(1);

        private final long flag;

        Include(long flag) {
            this.flag = flag;
        }
    }

    /** What the store's URI says about the chain. vex.client asks for STORE if it says nothing. */
    enum Chain { NOT_SAID, STORE, ROOT }

    /** How a signature is made. */
    record Flags(Form form, Include include, Chain chain, boolean withClient) {}

    /** Why there is no signature. */
    record Refusal(long number, String message) {}

    private final List<X509Certificate> path;
    private final String uri;
    private final Map<Chain, Client> natives = new EnumMap<>(Chain.class);
    private Refusal refusal;

    /**
     * @param keys the signer's first, the root's last
     * @param directory for the store
     */
    ThirdPartySigner(List<KeyPair> keys, Path directory, Random random) throws Exception {
        List<TestStore.Identity> identities = TestStore.chain(keys);
        path = identities.stream().map(TestStore.Identity::certificate).toList();
        uri = writeStore(identities, directory, random);
    }

    private static String writeStore(List<TestStore.Identity> identities, Path directory, Random random)
            throws Exception {
        List<X509Certificate> certificates =
            new ArrayList<>(identities.stream().map(TestStore.Identity::certificate).toList());
        Path file = directory.resolve("keys.pem");
        String key = TestStore.pem("PRIVATE KEY", identities.get(0).key().getEncoded());
        switch (random.nextInt(3)) {
            case 0:
                Path pkcs12 = directory.resolve("keys.p12");
                TestStore.writeChain(pkcs12, identities);
                return "file:" + pkcs12 + "?pin-value=" + TestStore.PIN.replace(" ", "%20");
            case 1:
                Collections.shuffle(certificates, random);
                Files.writeString(file, key + TestStore.pem(certificates));
                return "file:" + file + "?errors=handle";
            default:
                List<X509Certificate> issuers = certificates.subList(1, certificates.size());
                Collections.shuffle(issuers, random);
                Files.writeString(file, key + TestStore.pem(certificates.subList(0, 1)));
                Files.writeString(directory.resolve("issuers.pem"), TestStore.pem(issuers));
                return "file:" + file + "?chain-source=file:" + directory.resolve("issuers.pem");
        }
    }

    /** The signer's certificate first, the root last. */
    List<X509Certificate> path() {
        return path;
    }

    X509Certificate certificate() {
        return path.get(0);
    }

    X509Certificate root() {
        return path.get(path.size() - 1);
    }

    /** What somebody needs who knows only the root. */
    List<X509Certificate> withoutRoot() {
        return path.subList(0, path.size() - 1);
    }

    /** The certificates that a signature promises to contain. */
    Set<X509Certificate> promised(Flags flags) {
        if (flags.form() == Form.P1 || flags.include() == Include.NONE) {
            return Set.of();
        }
        boolean chain = flags.include() == Include.ALL && (flags.chain() != Chain.NOT_SAID || flags.withClient());
        return !chain ? Set.of(certificate())
             : flags.chain() == Chain.ROOT ? Set.copyOf(path) : Set.copyOf(withoutRoot());
    }

    private String uri(Chain chain) {
        String without = uri.replaceFirst("[?&]chain-source=[^&]*$", "");
        return switch (chain) {
            // The file of issuers may be named only with a chain.
            case NOT_SAID -> without;
            case STORE -> uri + "&chain=store";
            case ROOT -> uri + "&chain=root";
        };
    }

    /** Empty: the toolkit refuses; {@link #refusal} tells why. */
    Optional<byte[]> sign(Scheme scheme, Flags flags, Content content) throws Exception {
        return flags.withClient() ? signWithClient(scheme, flags, content) : signWithNatives(scheme, flags, content);
    }

    Refusal refusal() {
        return refusal;
    }

    private Optional<byte[]> signWithNatives(Scheme scheme, Flags flags, Content content) {
        Client client = natives.computeIfAbsent(flags.chain(), chain -> Client.open(uri(chain)));
        client.setDigest(scheme.toolkitName());
        String input = content.asText() ? content.text() : Base64.getEncoder().encodeToString(content.bytes());
        boolean detached = flags.form() == Form.P7_DETACHED;
        String base64;
        if (flags.form() == Form.P1) {
            base64 = content.asText() ? client.p1SignString(input) : client.p1Sign(input);
        } else {
            base64 = content.asText() ? client.p7SignString(input, detached, flags.include().flag)
                                      : client.p7Sign(input, detached, flags.include().flag);
        }
        refusal = base64 != null ? null : new Refusal(client.lastError(), client.lastMessage());
        return Optional.ofNullable(base64).map(Base64.getDecoder()::decode);
    }

    private Optional<byte[]> signWithClient(Scheme scheme, Flags flags, Content content) throws Exception {
        CmsOption[] options = switch (flags.include()) {
            case NONE -> new CmsOption[] {CmsOption.OMIT_CERTIFICATE};
            case SIGNER -> new CmsOption[0];
            case ALL -> new CmsOption[] {CmsOption.INCLUDE_CHAIN};
        };
        String store = uri(flags.chain() == Chain.NOT_SAID && uri.contains("chain-source") ? Chain.STORE
                                                                                           : flags.chain());
        try (SigningClient client = SigningClient.store(store).digest(scheme.toolkitName()).open()) {
            SigningRequest request = switch (flags.form()) {
                case P1 -> content.asText() ? SigningRequest.raw(content.text()) : SigningRequest.raw(content.bytes());
                case P7_DETACHED -> content.asText() ? SigningRequest.cmsDetached(content.text(), options)
                                                     : SigningRequest.cmsDetached(content.bytes(), options);
                case P7_ATTACHED -> content.asText() ? SigningRequest.cmsAttached(content.text(), options)
                                                     : SigningRequest.cmsAttached(content.bytes(), options);
            };
            SigningResult result = client.sign(request);
            List<X509Certificate> chain = flags.chain() == Chain.ROOT ? path : withoutRoot();
            if (!result.chain().equals(chain)) {
                throw new AssertionError("the result has another chain: " + result.chain());
            }
            refusal = null;
            return Optional.of(result.signature());
        } catch (SigningException e) {
            refusal = new Refusal(e.number(), e.getMessage());
            return Optional.empty();
        }
    }

    @Override
    public void close() {
        natives.values().forEach(Client::close);
    }
}
